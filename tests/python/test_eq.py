"""The six-band equaliser through the generic Effect interface."""

import numpy as np
import pytest

import vexaudiodsp as vx

RATE = 48000.0


def prototype(kind, f0, q, gain_db, f, rate=RATE):
    """Analog prototypes at s = i tan(pi f / rate), corner pre-warped the same way."""
    s = 1j * np.tan(np.pi * np.asarray(f) / rate)
    w0 = np.tan(np.pi * f0 / rate)
    den = s * s + s * w0 / q + w0 * w0
    if kind == "lowpass":
        return w0 * w0 / den
    if kind == "highpass":
        return s * s / den
    a = 10 ** (gain_db / 40)
    return (s * s + s * a * w0 / q + w0 * w0) / (s * s + s * w0 / (a * q) + w0 * w0)


def three_bands():
    return vx.Effect("eq", type1="highpass", freq1=60, q1=0.75, type2="peak", freq2=2500, gain2=-7.5, q2=3,
                     type5="lowpass", freq5=14000, q5=1.25)


def test_response_is_the_product_of_the_band_prototypes():
    f = np.geomspace(20, 20000, 40)
    h = three_bands().response(f)
    expected = (prototype("highpass", 60, 0.75, 0, f) * prototype("peak", 2500, 3, -7.5, f) *
                prototype("lowpass", 14000, 1.25, 0, f))
    np.testing.assert_allclose(h, expected, rtol=1e-9, atol=1e-12)
    h44 = three_bands().response(f, sample_rate=44100)
    np.testing.assert_allclose(np.abs(h44[10]), np.abs(
        prototype("highpass", 60, 0.75, 0, f[10], 44100) * prototype("peak", 2500, 3, -7.5, f[10], 44100) *
        prototype("lowpass", 14000, 1.25, 0, f[10], 44100)), rtol=1e-9)


def test_processed_impulse_has_the_same_spectrum():
    n = 1 << 15
    impulse = np.zeros((1, n), dtype=np.float32)
    impulse[0, 0] = 1
    fx = three_bands()
    y = fx.process(impulse, RATE)[0].astype(np.float64)
    spectrum = np.fft.rfft(y)
    bins = np.array([40, 300, 1707, 5000])
    f = bins * RATE / n
    np.testing.assert_allclose(np.abs(spectrum[bins]), np.abs(fx.response(f)), rtol=1e-4)


def test_streaming_blocks_and_channels():
    x = np.random.default_rng(3).uniform(-0.5, 0.5, (2, 9000)).astype(np.float32)
    whole = three_bands().process(x, RATE)
    fx = three_bands()
    parts = [fx.process(x[:, a:b], RATE) for a, b in ((0, 1), (1, 4000), (4000, 9000))]
    np.testing.assert_array_equal(np.concatenate(parts, axis=1), whole)
    mono = three_bands().process(x[1], RATE)
    np.testing.assert_array_equal(mono, whole[1])


def test_off_bands_and_zero_db_peaks_pass_the_signal_exactly():
    x = np.random.default_rng(4).uniform(-1, 1, (1, 2000)).astype(np.float32)
    np.testing.assert_array_equal(vx.Effect("eq", gain1=12, q3=9).process(x, RATE), x)
    np.testing.assert_array_equal(vx.Effect("eq", type2="peak", gain2=0, q2=5).process(x, RATE), x)
    muted = vx.Effect("eq", type1="highpass", freq1=30000).process(x, RATE)
    assert not muted.any()


def test_parameters_are_attributes_with_checked_ranges():
    fx = vx.Effect("eq")
    assert fx.type1 == "off"
    fx.type3 = "lowpass"
    fx.freq3 = 5000
    assert fx.type3 == "lowpass"
    assert "type3=lowpass,freq3=5000" in fx.text
    with pytest.raises(ValueError):
        fx.type1 = "bandpass"
    with pytest.raises(ValueError, match="out of range"):
        fx.q2 = 0
    with pytest.raises(ValueError, match="out of range"):
        fx.gain6 = 31
