// Every registered effect, through the properties a host relies on: block
// splitting does not change the output, Process does not allocate, Reset
// restarts cleanly, extreme settings stay finite, and a pure delay reports
// its latency truthfully. An effect that cannot meet a property names the
// reason in its Exemptions.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace {

using dsp::host::Effect;
using dsp::host::EffectInfo;
using dsp::host::EffectRegistry;
using dsp::host::ParamKind;
using Planar = std::vector<std::vector<float>>;

constexpr double kRate = 48000.0;

std::vector<std::string> EffectNames(bool pureDelaysOnly = false) {
  std::vector<std::string> names;
  for (const EffectInfo* info : EffectRegistry::Instance().All()) {
    if (!pureDelaysOnly || info->pureDelayAtDefaults) {
      names.push_back(info->name);
    }
  }
  return names;
}

int ChannelsFor(const EffectInfo& info) {
  return info.io.minChannels <= 2 && info.io.maxChannels >= 2 ? 2 : info.io.minChannels;
}

Planar Noise(int channels, int frames, std::uint32_t seed, double amplitude = 1.0) {
  Planar x;
  for (int ch = 0; ch < channels; ++ch) {
    x.push_back(vextest::Noise(static_cast<std::size_t>(frames), seed + static_cast<std::uint32_t>(ch), amplitude));
  }
  return x;
}

Planar Impulse(int channels, int frames) {
  Planar x(static_cast<std::size_t>(channels), std::vector<float>(static_cast<std::size_t>(frames)));
  for (auto& channel : x) {
    channel[0] = 1.0f;
  }
  return x;
}

// Runs `input` through `effect` in blocks of `block` frames.
Planar RunBlocks(Effect& effect, const Planar& input, int block) {
  Planar output = input;
  const int channels = static_cast<int>(input.size());
  const int frames = static_cast<int>(input[0].size());
  std::vector<float*> in(input.size());
  std::vector<float*> out(input.size());
  Planar copy = input;
  for (int offset = 0; offset < frames; offset += block) {
    const int n = std::min(block, frames - offset);
    for (int ch = 0; ch < channels; ++ch) {
      in[static_cast<std::size_t>(ch)] = copy[static_cast<std::size_t>(ch)].data() + offset;
      out[static_cast<std::size_t>(ch)] = output[static_cast<std::size_t>(ch)].data() + offset;
    }
    effect.Process(in.data(), out.data(), channels, n);
  }
  return output;
}

double MaxDiff(const Planar& a, const Planar& b) {
  double worst = 0.0;
  for (std::size_t ch = 0; ch < a.size(); ++ch) {
    worst = std::max(worst, vextest::MaxAbsDiff(a[ch], b[ch]));
  }
  return worst;
}

double Peak(const Planar& x) {
  double peak = 0.0;
  for (const auto& channel : x) {
    for (float v : channel) {
      peak = std::max(peak, static_cast<double>(std::fabs(v)));
    }
  }
  return peak;
}

class RegistryEffects : public ::testing::TestWithParam<std::string> {
 protected:
  const EffectInfo& Info() const { return *EffectRegistry::Instance().Find(GetParam()); }

  std::unique_ptr<Effect> Started(const std::function<void(Effect&)>& configure = {}) const {
    std::unique_ptr<Effect> effect = Info().create(Info());
    if (configure) {
      configure(*effect);
    }
    effect->SetIOConfig(ChannelsFor(Info()), static_cast<float>(kRate));
    effect->Start();
    return effect;
  }

  int Channels() const { return ChannelsFor(Info()); }
};

TEST_P(RegistryEffects, DescriptorsAreWellFormedAndTextRoundTrips) {
  const EffectInfo& info = Info();
  EXPECT_FALSE(info.description.empty());
  EXPECT_TRUE(info.io.Check(Channels(), kRate).empty()) << info.io.Check(Channels(), kRate);
  for (std::size_t i = 0; i < info.params.size(); ++i) {
    const auto& param = info.params[i];
    SCOPED_TRACE(param.id);
    EXPECT_EQ(info.FindParam(param.id), static_cast<int>(i)) << "ids must be unique";
    EXPECT_FALSE(param.description.empty());
    for (char c : param.id) {
      EXPECT_TRUE(std::islower(static_cast<unsigned char>(c)) || std::isdigit(static_cast<unsigned char>(c)) ||
                  c == '_');
    }
    if (param.kind == ParamKind::kPath) {
      continue;
    }
    EXPECT_TRUE(param.Check(param.defaultValue).empty()) << param.Check(param.defaultValue);
    if (param.kind == ParamKind::kChoice) {
      EXPECT_EQ(param.maximum + 1.0, static_cast<double>(param.choices.size()));
    }
    for (double value : {param.minimum, param.maximum, param.defaultValue}) {
      double back = 0.0;
      std::string error;
      EXPECT_TRUE(param.Parse(param.Format(value), &back, &error)) << error;
      EXPECT_EQ(back, value);
    }
  }
  std::unique_ptr<Effect> effect = info.create(info);
  const std::string text = dsp::host::FormatEffect(*effect);
  std::string error;
  std::unique_ptr<Effect> again = dsp::host::CreateEffect(text, &error);
  ASSERT_NE(again, nullptr) << error;
  EXPECT_EQ(dsp::host::FormatEffect(*again), text);
}

TEST_P(RegistryEffects, OutputDoesNotDependOnTheBlockSplit) {
  if (!Info().exemptions.blockSplit.empty()) {
    GTEST_SKIP() << Info().exemptions.blockSplit;
  }
  const Planar input = Noise(Channels(), 30000, 11, 0.5);
  const Planar whole = RunBlocks(*Started(), input, 30000);
  for (int block : {1, 7, 512, 8192, 10000}) {
    EXPECT_LE(MaxDiff(RunBlocks(*Started(), input, block), whole), 1e-5 * std::max(1.0, Peak(whole)))
        << "blocks of " << block;
  }
}

TEST_P(RegistryEffects, ProcessingNeverAllocates) {
  std::unique_ptr<Effect> effect = Started();
  Planar input = Noise(Channels(), 10000, 5);
  Planar output = input;
  std::vector<float*> in;
  std::vector<float*> out;
  for (std::size_t ch = 0; ch < input.size(); ++ch) {
    in.push_back(input[ch].data());
    out.push_back(output[ch].data());
  }
  for (int n : {1, 7, 512, 8192, 10000}) {
    EXPECT_NO_ALLOCATION(effect->Process(in.data(), out.data(), Channels(), n));
  }
  // Every parameter that applies between blocks moves to its maximum and
  // back: the recomputation must not allocate either.
  for (int i = 0; i < effect->GetNumParams(); ++i) {
    const auto& param = effect->GetParam(i);
    if (param.kind == ParamKind::kPath || param.rebuildsState) {
      continue;
    }
    EXPECT_NO_ALLOCATION(effect->SetValue(i, param.maximum));
    EXPECT_NO_ALLOCATION(effect->Process(in.data(), out.data(), Channels(), 512));
    EXPECT_NO_ALLOCATION(effect->SetValue(i, param.defaultValue));
  }
  EXPECT_NO_ALLOCATION(effect->Process(in.data(), out.data(), Channels(), 512));
  EXPECT_NO_ALLOCATION(effect->Reset());
  EXPECT_NO_ALLOCATION(effect->Flush(out.data(), Channels(), 512));
}

// At the defaults and with every number a hundredth of the way into its
// range (a short delay, a quiet threshold), where state must really clear.
TEST_P(RegistryEffects, ResetThenTheSameInputRepeatsAFreshRun) {
  if (!Info().exemptions.resetRepeats.empty()) {
    GTEST_SKIP() << Info().exemptions.resetRepeats;
  }
  const auto nearMinimum = [](Effect& e) {
    for (int i = 0; i < e.GetNumParams(); ++i) {
      const auto& param = e.GetParam(i);
      if (param.kind == ParamKind::kNumber || param.kind == ParamKind::kInteger) {
        double value = param.minimum + 0.01 * (param.maximum - param.minimum);
        value = param.kind == ParamKind::kInteger ? std::ceil(value) : value;
        ASSERT_TRUE(e.SetValue(i, value)) << param.id;
      }
    }
  };
  const Planar input = Noise(Channels(), 20000, 3, 0.7);
  for (const auto& configure : {std::function<void(Effect&)>{}, std::function<void(Effect&)>{nearMinimum}}) {
    const Planar fresh = RunBlocks(*Started(configure), input, 4096);
    std::unique_ptr<Effect> used = Started(configure);
    RunBlocks(*used, Noise(Channels(), 15000, 99), 1000);
    used->Reset();
    EXPECT_LE(MaxDiff(RunBlocks(*used, input, 4096), fresh), 1e-6 * std::max(1.0, Peak(fresh)))
        << (configure ? "near the minimum" : "at the defaults");
  }
}

// Every number at its minimum, maximum and default (every name of a
// choice), one parameter at a time, on full-scale noise, an impulse and the
// silence after a loud passage.
TEST_P(RegistryEffects, ExtremeSettingsGiveFiniteNormalOutput) {
  const EffectInfo& info = Info();
  std::vector<std::pair<int, double>> settings{{-1, 0.0}};
  for (std::size_t i = 0; i < info.params.size(); ++i) {
    const auto& param = info.params[i];
    if (param.kind == ParamKind::kChoice) {
      for (double v = 0.0; v <= param.maximum; v += 1.0) {
        settings.emplace_back(static_cast<int>(i), v);
      }
    } else if (param.kind != ParamKind::kPath) {
      settings.emplace_back(static_cast<int>(i), param.minimum);
      settings.emplace_back(static_cast<int>(i), param.maximum);
    }
  }
  Planar loud = Noise(Channels(), 12000, 21);
  for (auto& channel : loud) {
    channel.resize(channel.size() + 24000, 0.0f);
  }
  const Planar signals[] = {Noise(Channels(), 6000, 7), Impulse(Channels(), 6000), loud};
  for (const auto& [index, value] : settings) {
    std::unique_ptr<Effect> effect = Started([&](Effect& e) {
      if (index >= 0) {
        ASSERT_TRUE(e.SetValue(index, value));
      }
    });
    const std::string where = index < 0 ? "defaults"
                                        : info.params[static_cast<std::size_t>(index)].id + "=" +
                                              info.params[static_cast<std::size_t>(index)].Format(value);
    for (const Planar& signal : signals) {
      effect->Reset();
      const Planar out = RunBlocks(*effect, signal, 1024);
      std::size_t bad = 0;
      for (const auto& channel : out) {
        for (float v : channel) {
          bad += !std::isfinite(v) || (v != 0.0f && std::fabs(v) < FLT_MIN);
        }
      }
      EXPECT_EQ(bad, 0u) << "non-finite or subnormal output at " << where;
    }
  }
}

// A NaN and infinities in the input are taken as silence: the output stays
// finite and, once they have passed, equals the output for zeros there.
TEST_P(RegistryEffects, NonFiniteInputIsTakenAsSilence) {
  Planar clean = Noise(Channels(), 20000, 17, 0.5);
  for (auto& channel : clean) {
    channel[100] = 0.0f;
    channel[9000] = 0.0f;
    channel[9001] = 0.0f;
  }
  Planar bad = clean;
  for (auto& channel : bad) {
    channel[100] = NAN;
    channel[9000] = INFINITY;
    channel[9001] = -INFINITY;
  }
  const Planar expected = RunBlocks(*Started(), clean, 4096);
  const Planar out = RunBlocks(*Started(), bad, 4096);
  EXPECT_LE(MaxDiff(out, expected), 1e-6 * std::max(1.0, Peak(expected)));
}

// Only the effects that declare themselves a pure delay at their defaults.
class PureDelayEffects : public RegistryEffects {};

TEST_P(PureDelayEffects, ImpulseComesOutAtTheDeclaredLatency) {
  std::unique_ptr<Effect> effect = Started();
  const int latency = effect->GetLatency();
  ASSERT_GE(latency, 0);
  const Planar out = RunBlocks(*effect, Impulse(Channels(), latency + 4096), 512);
  for (const auto& channel : out) {
    for (std::size_t i = 0; i < channel.size(); ++i) {
      EXPECT_NEAR(channel[i], i == static_cast<std::size_t>(latency) ? 1.0 : 0.0, 1e-4) << "frame " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Registered, RegistryEffects, ::testing::ValuesIn(EffectNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });
INSTANTIATE_TEST_SUITE_P(Registered, PureDelayEffects, ::testing::ValuesIn(EffectNames(true)),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

}  // namespace
