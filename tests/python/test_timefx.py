"""The time-domain effects from Python, through the generic Effect."""

import numpy as np
import pytest

import vexaudiodsp as vx


def noise(channels, frames, seed=1, amplitude=0.5):
    rng = np.random.default_rng(seed)
    return rng.uniform(-amplitude, amplitude, (channels, frames)).astype(np.float32)


def test_every_time_effect_is_listed_with_named_choices():
    effects = {e["name"]: e for e in vx.effects()}
    for name in ("reverb", "analogdelay", "expander", "widener", "exciter"):
        assert name in effects
    modes = {p["id"]: p for p in effects["analogdelay"]["params"]}
    assert modes["mode"]["choices"] == ["tape", "bbd", "lofi"]
    assert "1/8d" in modes["note"]["choices"]


def test_reverb_first_echo_and_tail():
    x = np.zeros((1, 2000), np.float32)
    x[0, 0] = 1.0
    fx = vx.Effect("reverb", dry=0, wet=100, lowcut=20, highcut=20000)
    y = fx.process(x, 48000)
    assert np.all(y[0, :1116] == 0.0)
    assert y[0, 1116] != 0.0
    assert fx.tail > 48000


def test_expander_width_matrix_and_widener_delay():
    x = noise(2, 1000)
    y = vx.Effect("expander", width=300).process(x, 48000)
    np.testing.assert_allclose(y[0], 2 * x[0] - x[1], atol=1e-6)
    np.testing.assert_allclose(y[1], 2 * x[1] - x[0], atol=1e-6)
    w = vx.Effect("widener", width=100, delay=1).process(x, 48000)
    np.testing.assert_allclose(w[1, 47:], x[1, :-47], atol=1e-6)
    np.testing.assert_array_equal(w[1, :47], 0.0)
    with pytest.raises(ValueError, match="2 channels"):
        vx.Effect("widener").process(noise(1, 100), 48000)


def test_exciter_retro_curve():
    x = noise(1, 500)
    y = vx.Effect("exciter", mode="retro", amount=6, mix=100).process(x, 48000)
    g = 10 ** (6 / 20)
    np.testing.assert_allclose(y, g * x / (1 + np.abs(g * x)), atol=1e-6)


def test_analogdelay_streams_identically_in_pieces():
    x = noise(2, 6000)
    whole = vx.Effect("analogdelay", delay=20, feedback=60, mode="lofi").process(x, 48000)
    fx = vx.Effect("analogdelay", delay=20, feedback=60, mode="lofi")
    parts = np.concatenate([fx.process(x[:, :1234], 48000), fx.process(x[:, 1234:], 48000)], axis=1)
    np.testing.assert_array_equal(parts, whole)
    assert np.all(np.isfinite(whole))
