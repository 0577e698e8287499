"""The Python module over the library's effect registry."""

import math

import numpy as np
import pytest

import vexaudiodsp as vx


def noise(channels, frames, seed=1):
    return np.random.default_rng(seed).uniform(-0.5, 0.5, (channels, frames)).astype(np.float32)


def test_effects_lists_every_descriptor():
    effects = {e["name"]: e for e in vx.effects()}
    gain = effects["gain"]
    assert gain["params"][0]["id"] == "db"
    assert gain["params"][0]["minimum"] == -120.0
    assert gain["params"][0]["unit"] == "dB"
    assert "delay" in effects


def test_gain_matches_its_definition_for_both_dtypes_and_shapes():
    x = noise(2, 1000)
    fx = vx.Effect("gain", db=-6)
    y = fx.process(x, 48000)
    assert y.dtype == np.float32 and y.shape == x.shape
    np.testing.assert_allclose(y, x * 10 ** (-6 / 20), rtol=1e-6)
    y64 = vx.Effect("gain", db=6).process(x.astype(np.float64), 48000)
    np.testing.assert_allclose(y64, x * 10 ** (6 / 20), rtol=1e-6)
    mono = vx.Effect("gain", db=-20).process(x[0], 44100)
    assert mono.shape == (1000,)
    np.testing.assert_allclose(mono, x[0] * 0.1, rtol=1e-6)
    # A transposed view is read by its strides, not its memory order.
    np.testing.assert_allclose(vx.Effect("gain").process(x.T.copy().T, 48000), x)


def test_attributes_read_and_write_parameters():
    fx = vx.Effect("gain")
    assert fx.db == 0.0
    fx.db = -12
    assert fx.db == -12.0
    assert fx.text == "gain:db=-12"
    with pytest.raises(ValueError, match="out of range"):
        fx.db = 49
    with pytest.raises(AttributeError):
        fx.level = 1
    with pytest.raises(ValueError, match="not a number"):
        vx.Effect("gain", db="0x10")
    with pytest.raises(ValueError, match="unknown effect"):
        vx.Effect("nosuch")


def test_delay_streams_across_calls_and_reports_its_tail():
    x = noise(1, 4800)
    fx = vx.Effect("delay", ms=10)
    first = fx.process(x[:, :1000], 48000)
    second = fx.process(x[:, 1000:], 48000)
    y = np.concatenate([first, second], axis=1)
    np.testing.assert_array_equal(y[:, 480:], x[:, :-480])
    assert fx.tail == 480 and fx.latency == 0
    fx.reset()
    np.testing.assert_array_equal(fx.process(x, 48000)[:, :480], 0)


def test_process_runs_a_chain_with_the_command_lines_compensation():
    x = noise(2, 3000)
    y = vx.process(x, 48000, ["gain:db=-6", "delay:ms=1"], tail="auto")
    assert y.shape == (2, 3048)
    np.testing.assert_allclose(y[:, 48:], x * 10 ** (-6 / 20), rtol=1e-6)
    assert vx.process(x, 48000, []).shape == x.shape


@pytest.mark.parametrize(
    "bad, error",
    [
        (np.zeros((2, 10), np.int16), TypeError),
        ([[0.0, 1.0]], TypeError),
        (np.zeros((1, 2, 3), np.float32), ValueError),
        (np.zeros((0, 10), np.float32), ValueError),
        (np.zeros((65, 10), np.float32), ValueError),
    ],
)
def test_bad_arrays_raise(bad, error):
    with pytest.raises(error):
        vx.Effect("gain").process(bad, 48000)


def test_bad_rates_and_chains_raise():
    with pytest.raises(ValueError):
        vx.Effect("gain").process(noise(1, 10), 0)
    with pytest.raises(ValueError):
        vx.Effect("gain").process(noise(1, 10), math.nan)
    with pytest.raises(ValueError, match="has no key"):
        vx.process(noise(1, 10), 48000, ["gain:level=1"])


def test_response_of_a_gain_is_flat():
    r = vx.Effect("gain", db=-6).response([100.0, 1000.0, 10000.0])
    np.testing.assert_allclose(np.abs(r), 10 ** (-6 / 20), rtol=1e-6)


def test_non_finite_samples_are_taken_as_silence_with_a_warning():
    x = noise(2, 48000)
    clean = x.copy()
    x[0, 100] = np.nan
    x[1, 200] = np.inf
    clean[0, 100] = 0.0
    clean[1, 200] = 0.0
    with pytest.warns(RuntimeWarning, match="2 non-finite"):
        y = vx.Effect("reverb").process(x, 48000)
    assert np.all(np.isfinite(y))
    np.testing.assert_array_equal(y, vx.Effect("reverb").process(clean, 48000))
