// The effect contract itself: parameter text, the name:key=value form and
// the effect base's lifecycle, chunking and tail.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "vexaudiodsp/host/EffectRegistry.h"
#include "vexaudiodsp/host/Parameter.h"

namespace {

using dsp::host::Effect;
using dsp::host::EffectInfo;
using dsp::host::ParamDescriptor;

TEST(ParseDecimal, AcceptsPlainDecimalOnly) {
  double v = 0.0;
  for (const auto& [text, value] : std::vector<std::pair<const char*, double>>{
           {"0", 0.0}, {"-6", -6.0}, {"+2.5", 2.5}, {".5", 0.5}, {"5.", 5.0}, {"-1.25e-3", -1.25e-3}, {"1E2", 100.0}}) {
    ASSERT_TRUE(dsp::host::ParseDecimal(text, &v)) << text;
    EXPECT_EQ(v, value) << text;
  }
  for (const char* text : {"", " 1", "1 ", "0x10", "inf", "nan", "-", ".", "1e", "1e+", "1.2.3", "1,5", "1e999"}) {
    EXPECT_FALSE(dsp::host::ParseDecimal(text, &v)) << text;
  }
}

TEST(ParamDescriptor, ParsesEachKindAndRefusesWhatItCannotHold) {
  const auto choice = ParamDescriptor::Choice("type", "Type", {"off", "peak"}, 0, "band type");
  const auto toggle = ParamDescriptor::Toggle("on", "On", false, "switch");
  const auto integer = ParamDescriptor::Integer("n", "Count", "", 1, 8, 2, "count");
  const auto number = ParamDescriptor::Number("db", "Gain", "dB", -12.0, 12.0, 0.0, "gain");
  double v = 0.0;
  std::string error;
  EXPECT_TRUE(choice.Parse("peak", &v, &error));
  EXPECT_EQ(v, 1.0);
  EXPECT_FALSE(choice.Parse("1", &v, &error));
  EXPECT_NE(error.find("off, peak"), std::string::npos) << error;
  EXPECT_TRUE(toggle.Parse("yes", &v, &error));
  EXPECT_EQ(v, 1.0);
  EXPECT_FALSE(toggle.Parse("2", &v, &error));
  EXPECT_FALSE(integer.Parse("2.5", &v, &error));
  EXPECT_TRUE(integer.Parse("8", &v, &error));
  EXPECT_TRUE(number.Parse("-12", &v, &error));
  EXPECT_TRUE(number.Parse("12", &v, &error));
  EXPECT_FALSE(number.Parse("12.0001", &v, &error));
  EXPECT_NE(error.find("out of range (-12 to 12 dB)"), std::string::npos) << error;
  EXPECT_EQ(choice.Format(1.0), "peak");
  EXPECT_EQ(toggle.Format(0.0), "off");
  EXPECT_EQ(dsp::host::FormatNumber(0.1), "0.1");
  EXPECT_EQ(dsp::host::FormatNumber(10000.0), "10000");
}

TEST(CreateEffect, RefusesWhatItCannotBuildWithOneLine) {
  std::string error;
  for (const char* text : {"", ":db=1", "nosuch", "gain:level=1", "gain:db=1,db=2", "gain:db", "gain:=1", "gain:db=1,",
                           "gain:db=49", "gain:db=abc", "delay:ms=-1"}) {
    error.clear();
    EXPECT_EQ(dsp::host::CreateEffect(text, &error), nullptr) << text;
    EXPECT_FALSE(error.empty()) << text;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
  auto gain = dsp::host::CreateEffect("gain:db=-6.5", &error);
  ASSERT_NE(gain, nullptr) << error;
  EXPECT_EQ(gain->GetValue(gain->FindParam("db")), -6.5);
  EXPECT_EQ(dsp::host::FormatEffect(*gain), "gain:db=-6.5");
  EXPECT_EQ(dsp::host::CreateEffect("gain:", &error)->GetValue(0), 0.0);
}

// Records the block lengths it is handed and outputs a running count, so
// parameter application and chunking are visible.
class Probe final : public Effect {
 public:
  static const EffectInfo& Info() {
    static const EffectInfo info = [] {
      EffectInfo i;
      i.name = "probe";
      i.description = "test probe";
      i.params = {ParamDescriptor::Number("step", "Step", "", 0.0, 10.0, 1.0, "added per frame")};
      i.io.maxChannels = 2;
      i.create = [](const EffectInfo& self) { return std::make_unique<Probe>(self); };
      return i;
    }();
    return info;
  }
  explicit Probe(const EffectInfo& info) : Effect(info) {}
  void Reset() override { count_ = 0.0f; }
  std::int64_t GetTailFrames() const override { return 10000; }
  int applied = 0;
  int largestBlock = 0;

 protected:
  void ApplyParameters() override {
    step_ = static_cast<float>(GetValue(0));
    ++applied;
  }
  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    largestBlock = std::max(largestBlock, numFrames);
    for (int i = 0; i < numFrames; ++i) {
      count_ += step_;
      for (int ch = 0; ch < numChannels; ++ch) {
        out[ch][i] = in[ch][i] + count_;
      }
    }
  }

 private:
  float step_ = 0.0f;
  float count_ = 0.0f;
};

TEST(Effect, ChunksBlocksAppliesParametersAtTheNextBlockAndFlushesItsTail) {
  Probe probe(Probe::Info());
  std::vector<float> a(20000, 0.0f);
  float* io[] = {a.data()};
  probe.Process(io, io, 1, 100);
  EXPECT_EQ(a[99], 0.0f) << "not started: silence";
  EXPECT_NE(probe.CheckIO(3, 48000.0), "");
  probe.SetIOConfig(3, 48000.0f);
  probe.Start();
  EXPECT_FALSE(probe.IsStarted()) << "a refused configuration stays unconfigured";

  probe.SetIOConfig(1, 48000.0f);
  probe.Start();
  ASSERT_TRUE(probe.IsStarted());
  EXPECT_EQ(probe.applied, 1);
  probe.Process(io, io, 1, 20000);
  EXPECT_EQ(probe.largestBlock, Effect::kMaxBlock);
  EXPECT_EQ(a[19999], 20000.0f);
  EXPECT_FALSE(probe.SetValue(0, 11.0));
  ASSERT_TRUE(probe.SetValue(0, 2.0));
  EXPECT_EQ(probe.applied, 1) << "applied at the next block, not in the setter";
  std::fill(a.begin(), a.end(), 0.0f);
  probe.Process(io, io, 1, 1);
  EXPECT_EQ(probe.applied, 2);
  EXPECT_EQ(a[0], 20002.0f);

  int flushed = 0;
  for (int n; (n = probe.Flush(io, 1, 4096)) > 0;) {
    flushed += n;
  }
  EXPECT_EQ(flushed, 10000);
  probe.Reset();
  std::fill(a.begin(), a.end(), 0.0f);
  probe.Process(io, io, 1, 3);
  EXPECT_EQ(a[2], 6.0f);
}

}  // namespace
