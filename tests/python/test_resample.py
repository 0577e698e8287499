"""vexaudiodsp.resample and the dither effect through the generic Effect."""

import numpy as np
import pytest

import vexaudiodsp as vx


def sine(freq, rate, frames, amp=0.5):
    return (amp * np.sin(2 * np.pi * freq * np.arange(frames) / rate)).astype(np.float32)


@pytest.mark.parametrize("src,dst,frames", [(48000, 44100, 48000), (44100, 48000, 10001), (32000, 48000, 777)])
def test_resample_length_alignment_and_level(src, dst, frames):
    x = np.stack([sine(1000, src, frames), sine(2500, src, frames, 0.25)])
    y = vx.resample(x, src, dst)
    assert y.dtype == np.float32
    assert y.shape == (2, round(frames * dst / src))
    n = np.arange(y.shape[1])
    ideal = np.stack([0.5 * np.sin(2 * np.pi * 1000 * n / dst), 0.25 * np.sin(2 * np.pi * 2500 * n / dst)])
    inner = slice(300, y.shape[1] - 300)
    assert np.max(np.abs(y[:, inner] - ideal[:, inner])) < 1e-4


def test_resample_mono_equal_rates_and_quality():
    x = sine(440, 48000, 5000)
    y = vx.resample(x, 48000, 48000)
    assert y.shape == x.shape
    np.testing.assert_array_equal(y, x)
    assert vx.resample(x.astype(np.float64), 48000, 44100, quality="low").shape == (4594,)


@pytest.mark.parametrize("bad", [0.0, -44100.0, float("nan")])
def test_resample_refuses_bad_rates(bad):
    with pytest.raises(ValueError):
        vx.resample(sine(440, 48000, 100), 48000, bad)
    with pytest.raises(ValueError):
        vx.resample(sine(440, 48000, 100), bad, 48000)
    with pytest.raises(ValueError):
        vx.resample(sine(440, 48000, 100), 48000, 44100, quality="ultra")


def test_dither_effect_puts_samples_on_the_grid():
    x = np.stack([sine(1000, 44100, 20000, 0.3), sine(300, 44100, 20000, 0.001)])
    for bits, shape in [(16, "standard"), (24, "none"), (8, "steep")]:
        fx = vx.Effect("dither", bits=bits, density="triangular", shape=shape)
        y = fx.process(x, 44100)
        codes = y.astype(np.float64) * 2.0 ** (bits - 1)
        np.testing.assert_array_equal(codes, np.round(codes))
        assert np.max(np.abs(y - x)) < 40 * 2.0 ** (1 - bits)
