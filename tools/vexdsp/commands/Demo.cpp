// vexdsp demo: a built-in test signal through the default effect chain,
// written to a float WAV, with the levels before and after.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "AudioFile.h"
#include "CliError.h"
#include "Command.h"
#include "Levels.h"
#include "Pipeline.h"

namespace vexdsp {
namespace {

// The demo's chain, in order. A new effect family joins the demo by adding
// its line here.
const char* const kDemoChain[] = {
    "gain:db=-3",
    "delay:ms=125",
};

constexpr int kDemoRate = 48000;
constexpr int kDemoChannels = 2;
constexpr double kTonesSeconds = 1.0;
constexpr double kSweepSeconds = 2.0;
constexpr double kNoiseSeconds = 1.0;
constexpr double kSweepStartHz = 20.0;
constexpr double kSweepEndHz = 20000.0;
constexpr double kToneHz[kDemoChannels] = {440.0, 660.0};
constexpr double kLevel = 0.25;  // -12 dBFS
constexpr double kFadeSeconds = 0.005;
constexpr double kPi = 3.14159265358979323846;

// Three segments, each faded in and out so the joins do not click: a
// different tone per channel, an exponential sweep (same phase law as
// Farina's measurement sweep) and uniform white noise from a fixed seed, so
// every run writes the same file.
std::vector<std::vector<float>> MakeDemoSignal() {
  const auto tones = static_cast<std::size_t>(kTonesSeconds * kDemoRate);
  const auto sweep = static_cast<std::size_t>(kSweepSeconds * kDemoRate);
  const auto noise = static_cast<std::size_t>(kNoiseSeconds * kDemoRate);
  const std::size_t total = tones + sweep + noise;
  const auto fade = static_cast<std::size_t>(kFadeSeconds * kDemoRate);
  const double sweepRate = std::log(kSweepEndHz / kSweepStartHz) / kSweepSeconds;

  std::vector<std::vector<float>> audio(kDemoChannels, std::vector<float>(total));
  std::mt19937 random(20261122u);
  std::uniform_real_distribution<double> uniform(-kLevel, kLevel);
  for (int ch = 0; ch < kDemoChannels; ++ch) {
    std::vector<float>& x = audio[static_cast<std::size_t>(ch)];
    for (std::size_t i = 0; i < tones; ++i) {
      x[i] = static_cast<float>(kLevel * std::sin(2.0 * kPi * kToneHz[ch] * static_cast<double>(i) / kDemoRate));
    }
    for (std::size_t i = 0; i < sweep; ++i) {
      const double t = static_cast<double>(i) / kDemoRate;
      const double phase = 2.0 * kPi * kSweepStartHz / sweepRate * (std::exp(sweepRate * t) - 1.0);
      x[tones + i] = static_cast<float>(kLevel * std::sin(phase));
    }
    for (std::size_t i = 0; i < noise; ++i) {
      x[tones + sweep + i] = static_cast<float>(uniform(random));
    }
    for (std::size_t start : {std::size_t{0}, tones, tones + sweep}) {
      const std::size_t end = start == 0 ? tones : (start == tones ? tones + sweep : total);
      for (std::size_t i = 0; i < fade; ++i) {
        const auto ramp = static_cast<float>(static_cast<double>(i) / static_cast<double>(fade));
        x[start + i] *= ramp;
        x[end - 1 - i] *= ramp;
      }
    }
  }
  return audio;
}

void PrintLevels(const char* label, const LevelMeter& meter) {
  for (int ch = 0; ch < meter.GetNumChannels(); ++ch) {
    std::printf("%-9s ch %d: peak %s dBFS, RMS %s dBFS\n", ch == 0 ? label : "", ch + 1,
                FormatDb(meter.GetPeak(ch)).c_str(), FormatDb(meter.GetRms(ch)).c_str());
  }
}

// The levels of what passes, on the way to the next sink.
class MeteringSink final : public dsp::host::FrameSink {
 public:
  MeteringSink(LevelMeter& meter, dsp::host::FrameSink& next) : meter_(meter), next_(next) {}
  bool Write(const float* const* planar, int numFrames) override {
    meter_.Add(planar, numFrames);
    return next_.Write(planar, numFrames);
  }

 private:
  LevelMeter& meter_;
  dsp::host::FrameSink& next_;
};

class DemoCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("OUT", output_, "Output file (float WAV)")->capture_default_str();
  }

  int Run() override {
    std::vector<std::string> texts(std::begin(kDemoChain), std::end(kDemoChain));
    std::unique_ptr<dsp::host::EffectChain> chain = ParseEffectChain(texts);
    const std::vector<std::vector<float>> input = MakeDemoSignal();
    const auto frames = static_cast<std::int64_t>(input[0].size());
    std::string note;
    const int format = ChooseOutputFormat(output_, SF_FORMAT_WAV | SF_FORMAT_FLOAT, SampleFormat::kKeep, kDemoChannels,
                                          kDemoRate, &note, frames);
    std::vector<const float*> inputPointers;
    for (const auto& channel : input) {
      inputPointers.push_back(channel.data());
    }
    LevelMeter inputMeter(kDemoChannels);
    inputMeter.Add(inputPointers.data(), static_cast<int>(frames));

    const auto started = std::chrono::steady_clock::now();
    std::string error;
    if (!chain->Prepare(kDemoChannels, kDemoRate, &error)) {
      throw CliError(error);
    }
    dsp::host::MemorySource source(inputPointers, frames);
    dsp::host::MemorySink memory(kDemoChannels);
    LevelMeter outputMeter(kDemoChannels);
    MeteringSink sink(outputMeter, memory);
    dsp::host::RenderProcess(chain->GetChain(), kDemoChannels, source, sink, 0);
    chain->GetChain().Done();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    AudioFileWriter writer(output_, format, kDemoChannels, kDemoRate);
    const auto& result = memory.GetAudio();
    std::vector<const float*> pointers(kDemoChannels);
    for (std::int64_t done = 0; done < frames; done += dsp::host::kRenderBlock) {
      for (int ch = 0; ch < kDemoChannels; ++ch) {
        pointers[static_cast<std::size_t>(ch)] = result[static_cast<std::size_t>(ch)].data() + done;
      }
      writer.Write(pointers.data(), static_cast<int>(std::min<std::int64_t>(dsp::host::kRenderBlock, frames - done)));
    }
    writer.Commit();

    const double audioSeconds = static_cast<double>(frames) / kDemoRate;
    std::printf(
        "signal    %.3f s at %d Hz, %d channels: %.0f s of tones (%.0f Hz left, %.0f Hz right), "
        "%.0f s log sweep %.0f Hz to %.0f kHz, %.0f s white noise, all at %s dBFS peak\n",
        audioSeconds, kDemoRate, kDemoChannels, kTonesSeconds, kToneHz[0], kToneHz[1], kSweepSeconds, kSweepStartHz,
        kSweepEndHz / 1000.0, kNoiseSeconds, FormatDb(kLevel).c_str());
    std::printf("chain     %s\n", chain->Describe().c_str());
    std::printf("latency   %lld samples (compensated)\n", static_cast<long long>(chain->GetLatency()));
    PrintLevels("input", inputMeter);
    PrintLevels("output", outputMeter);
    std::printf("time      %.1f ms for %.3f s of audio (%.0fx realtime)\n", seconds * 1000.0, audioSeconds,
                seconds > 0.0 ? audioSeconds / seconds : 0.0);
    std::printf("wrote     %s (%s)\n", output_.c_str(), DescribeFormat(format).c_str());
    if (!note.empty()) {
      std::printf("note      %s\n", note.c_str());
    }
    return 0;
  }

 private:
  std::string output_ = "demo-out.wav";
};

const CommandRegistration kDemo{
    "demo", "Run the default effect chain over a built-in 48 kHz stereo test signal and write the result.",
    [] { return std::make_unique<DemoCommand>(); }};

}  // namespace
}  // namespace vexdsp
