"""Noise prints and the denoise effect from Python."""

import os

import numpy as np
import pytest

import vexaudiodsp as vx

RATE = 48000


def take(seed=3):
    rng = np.random.default_rng(seed)
    noise = rng.uniform(-0.03, 0.03, (2, 2 * RATE)).astype(np.float32)
    t = np.arange(2 * RATE) / RATE
    tone = (0.4 * np.sin(2 * np.pi * 1000 * t)).astype(np.float32)
    x = noise.copy()
    x[:, RATE:] += tone[RATE:]
    return x, noise


def db(x):
    return 10 * np.log10(np.mean(np.asarray(x, np.float64) ** 2))


def test_capture_then_denoise_reduces_the_noise(tmp_path):
    x, noise = take()
    p = vx.capture_noise_print(x, RATE, 0.05, 0.95)
    assert p.channels == 2 and p.fft_size == 4096 and p.sample_rate == RATE
    assert p.frames > 20 and p.level_spread_db < 1.0 and p.warnings == []
    assert p.average.shape == (2, 2049)
    assert np.all(p.minimum <= p.average) and np.all(p.average <= p.maximum)

    y = vx.Effect("denoise", print=p, reduction=30).process(x, RATE)
    assert y.shape == x.shape
    for c in range(2):
        assert db(y[c, 4800:40000]) <= db(x[c, 4800:40000]) - 25
        assert abs(db(y[c, 60000:90000]) - db(x[c, 60000:90000])) < 0.3

    # Saved and loaded, the print gives the same output.
    path = str(tmp_path / "take.vxnp")
    p.save(path)
    q = vx.NoisePrint.load(path)
    assert os.fspath(q) == path
    np.testing.assert_array_equal(q.maximum, p.maximum)
    np.testing.assert_array_equal(vx.Effect("denoise", print=q, reduction=30).process(x, RATE), y)


def test_refusals(tmp_path):
    x, _ = take()
    with pytest.raises(ValueError, match="too short"):
        vx.capture_noise_print(x, RATE, 0.1, 0.15)
    with pytest.raises(ValueError):
        vx.capture_noise_print(x, RATE, 0.5, 0.2)
    p = vx.capture_noise_print(x[0], RATE, 0.0, 0.9)
    assert p.channels == 1
    # A print of another sample rate is refused when the effect meets the audio.
    with pytest.raises(ValueError, match="44100 Hz"):
        vx.Effect("denoise", print=vx.capture_noise_print(x[0], 44100, 0.0, 0.9)).process(x, RATE)
    path = tmp_path / "bad.vxnp"
    p.save(str(path))
    path.write_bytes(path.read_bytes()[:-9])
    with pytest.raises(ValueError, match="truncated"):
        vx.NoisePrint.load(str(path))
    with pytest.raises(OSError):
        vx.NoisePrint.load(str(tmp_path / "missing.vxnp"))
