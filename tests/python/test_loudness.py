"""vexaudiodsp.loudness against the EBU Tech 3341/3342 figures."""

import math

import numpy as np
import pytest

import vexaudiodsp as vx


def tone(dbfs, seconds, rate=48000, frequency=1000.0, channels=2):
    n = int(round(seconds * rate))
    x = 10 ** (dbfs / 20) * np.sin(2 * np.pi * frequency * np.arange(n) / rate)
    return np.tile(x.astype(np.float32), (channels, 1))


def test_tech3341_case1_reads_minus_23_and_is_compliant():
    r = vx.loudness(tone(-23, 4), 48000)
    assert set(r) == {"integrated", "unit", "true_peak_db", "true_peak_position", "momentary_max",
                      "short_term_max", "loudness_range", "valid", "compliant"}
    assert r["integrated"] == pytest.approx(-23.0, abs=0.1)
    assert r["momentary_max"] == pytest.approx(-23.0, abs=0.1)
    assert r["short_term_max"] == pytest.approx(-23.0, abs=0.1)
    assert r["true_peak_db"] == pytest.approx(-23.0, abs=0.1)
    assert r["unit"] == "LUFS" and r["valid"] and r["compliant"]
    atsc = vx.loudness(tone(-23, 4), 48000, standard="atsc")
    assert atsc["unit"] == "LKFS" and atsc["compliant"]


def test_tech3342_case1_loudness_range_and_float64_mono():
    x = np.concatenate([tone(-20, 20, channels=1), tone(-30, 20, channels=1)], axis=1)[0]
    r = vx.loudness(x.astype(np.float64), 48000)
    assert r["loudness_range"] == pytest.approx(10.0, abs=1.0)


def test_true_peak_of_a_sine_between_samples():
    # fs/4 at 45 degrees: samples at 0.707 of the amplitude, true peak at it.
    n = np.arange(48000)
    x = (0.5 * np.sin(np.pi / 2 * n + np.pi / 4)).astype(np.float32)
    x[:960] *= 0.5 - 0.5 * np.cos(np.pi * np.arange(960) / 960)
    r = vx.loudness(x, 48000)
    assert -6.02 - 0.4 <= r["true_peak_db"] <= -6.02 + 0.2
    assert 0 <= r["true_peak_position"] < 1.0


def test_too_short_gives_none_and_bad_arguments_raise():
    r = vx.loudness(tone(-20, 0.3), 48000)
    assert r["integrated"] is None and not r["valid"] and not r["compliant"]
    assert r["momentary_max"] is None and r["short_term_max"] is None
    with pytest.raises(ValueError):
        vx.loudness(tone(-20, 1), 48000, standard="bbc")
    with pytest.raises(ValueError):
        vx.loudness(tone(-20, 1), -1)
    with pytest.raises(TypeError):
        vx.loudness(np.zeros((2, 10), dtype=np.int16), 48000)


def test_limit_effect_holds_its_ceiling_through_the_generic_effect():
    x = np.random.default_rng(3).uniform(-1, 1, (2, 20000)).astype(np.float32)
    y = vx.Effect("limit", ceiling=-3, boost=6).process(x, 48000)
    assert np.max(np.abs(y)) <= 10 ** (-3 / 20) + 1e-7
    assert vx.Effect("comp").threshold == -20 and vx.Effect("compressor").ratio == 4
