"""vexaudiodsp.spectrum and the guitar effects through the generic Effect."""

import numpy as np
import pytest

import vexaudiodsp as vx

RATE = 48000


def tone(hz, amplitude, frames=RATE):
    return (amplitude * np.sin(2 * np.pi * hz * np.arange(frames) / RATE)).astype(np.float32)


def test_a_tone_reads_its_amplitude_in_its_band():
    x = tone(1000.0, 0.5)
    third = vx.spectrum(x, RATE, type="third-octave", average="infinite")
    assert third["hz"].shape == (32,)
    assert np.argmax(third["level"]) == 16  # 806 to 1016 Hz
    assert third["level"][16] == pytest.approx(0.5, rel=0.03)
    assert third["dbfs"][16] == pytest.approx(-6.02, abs=0.3)
    critical = vx.spectrum(x, RATE, type="critical")
    assert critical["hz"][8] == 920.0 and np.argmax(critical["level"]) == 8
    linear = vx.spectrum(x, RATE, type="linear", fft_size=1024, window="blackman")
    assert linear["level"].shape == (513,)
    assert abs(linear["hz"][np.argmax(linear["level"])] - 1000.0) <= RATE / 1024


def test_channels_are_mixed_by_their_mean():
    x = tone(3000.0, 0.4, 8192)
    silent = vx.spectrum(np.stack([x, -x]), RATE, type="linear")
    assert np.all(silent["level"] == 0.0) and np.all(np.isneginf(silent["dbfs"]))
    half = vx.spectrum(np.stack([x, np.zeros_like(x)]), RATE, average="infinite")
    full = vx.spectrum(x.astype(np.float64), RATE, average="infinite")
    np.testing.assert_allclose(half["level"], full["level"] / 2, rtol=1e-5, atol=1e-9)


def test_bad_arguments_raise():
    x = tone(440.0, 0.1, 8192)
    with pytest.raises(ValueError):
        vx.spectrum(x, RATE, type="octave")
    with pytest.raises(ValueError):
        vx.spectrum(x, RATE, fft_size=1000)
    with pytest.raises(ValueError):
        vx.spectrum(x[:100], RATE)
    with pytest.raises(ValueError):
        vx.spectrum(x, 0)


@pytest.mark.parametrize("name", ["garagefuzz", "overdrive", "straightfuzz", "retro", "rez", "talkbox", "cabinet"])
def test_guitar_effects_run_by_name_and_are_audible_at_defaults(name):
    x = np.stack([tone(220.0, 0.3, 9600), tone(330.0, 0.3, 9600)])
    y = vx.Effect(name).process(x, RATE)
    assert y.shape == x.shape and np.all(np.isfinite(y))
    assert np.max(np.abs(y - x)) > 0.01


def test_cabinet_model_and_microphone_by_name():
    x = np.zeros(4096, dtype=np.float32)
    x[0] = 1.0
    a = vx.Effect("cabinet", model="british-4x12", mic="room").process(x, RATE)
    b = vx.Effect("cabinet", model="combo-1x8", mic="on-axis").process(x, RATE)
    assert not np.allclose(a, b)
    with pytest.raises(Exception):
        vx.Effect("cabinet", model="no-such-cabinet")
