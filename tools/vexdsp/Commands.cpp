#include "Commands.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <vector>

#include "AudioFile.h"
#include "CliError.h"
#include "EffectRegistry.h"
#include "Levels.h"
#include "Progress.h"
#include "Render.h"

namespace vexdsp {
namespace {

std::string FormatDuration(std::int64_t frames, int sampleRate) {
  const double seconds = static_cast<double>(frames) / sampleRate;
  const auto millis = static_cast<std::int64_t>(std::llround(seconds * 1000.0));
  char text[64];
  std::snprintf(text, sizeof(text), "%.3f s (%" PRId64 ":%02d:%02d.%03d)", seconds, millis / 3600000,
                static_cast<int>(millis / 60000 % 60), static_cast<int>(millis / 1000 % 60),
                static_cast<int>(millis % 1000));
  return text;
}

std::string DescribeStream(int format, int numChannels, int sampleRate, std::int64_t frames) {
  return DescribeFormat(format) + ", " + std::to_string(numChannels) + " ch, " + std::to_string(sampleRate) + " Hz, " +
         std::to_string(frames) + " frames";
}

}  // namespace

int RunInfo(const std::string& path) {
  AudioFileReader reader(path);
  const int channels = reader.GetNumChannels();

  LevelMeter meter(channels);
  std::vector<std::vector<float>> block(static_cast<std::size_t>(channels), std::vector<float>(kBlockFrames));
  std::vector<float*> pointers;
  for (auto& channel : block) {
    pointers.push_back(channel.data());
  }
  Progress progress("measuring", reader.GetNumFrames());
  for (int got = 0; (got = reader.Read(pointers.data(), kBlockFrames)) > 0;) {
    meter.Add(pointers.data(), got);
    progress.Update(meter.GetNumFrames());
  }
  progress.Finish();
  // Some containers only estimate their length in the header; what was read
  // is the truth.
  const std::int64_t frames = meter.GetNumFrames();

  std::printf("file      %s\n", path.c_str());
  std::printf("format    %s (%s)\n", DescribeContainer(reader.GetFormat()).c_str(),
              DescribeSampleFormat(reader.GetFormat()).c_str());
  std::printf("rate      %d Hz\n", reader.GetSampleRate());
  std::printf("channels  %d\n", channels);
  std::printf("frames    %" PRId64 "\n", frames);
  std::printf("duration  %s\n", FormatDuration(frames, reader.GetSampleRate()).c_str());
  std::printf("channel  peak dBFS  peak linear  RMS dBFS\n");
  for (int ch = 0; ch < channels; ++ch) {
    std::printf("%7d  %9s  %11.6f  %8s\n", ch + 1, FormatDb(meter.GetPeak(ch)).c_str(), meter.GetPeak(ch),
                FormatDb(meter.GetRms(ch)).c_str());
  }
  return 0;
}

int RunProcess(const ProcessOptions& options) {
  // Every setting is checked before any audio is touched.
  std::vector<EffectConfig> effects;
  for (const std::string& text : options.effects) {
    effects.push_back(ParseEffectArgument(text));
  }

  AudioFileReader reader(options.input);
  const int channels = reader.GetNumChannels();
  const int rate = reader.GetSampleRate();
  const std::int64_t frames = reader.GetNumFrames();

  std::string note;
  const int format = ChooseOutputFormat(options.output, reader.GetFormat(), options.format, channels, rate, &note);
  std::unique_ptr<dsp::DSPProcessChain> chain = BuildChain(effects, channels, rate);
  const int latency = chain->GetLatency();

  AudioFileWriter writer(options.output, format, channels, rate, reader.GetChannelMap());
  FileSource source(reader);
  FileSink sink(writer);
  Progress progress("processing", frames);
  RenderThroughChain(*chain, channels, frames, source, sink, &progress);
  chain->Done();
  writer.Commit();

  std::printf("in     %s: %s\n", options.input.c_str(),
              DescribeStream(reader.GetFormat(), channels, rate, frames).c_str());
  std::printf("chain  %s (latency %d samples, compensated)\n", DescribeChain(effects).c_str(), latency);
  std::printf("out    %s: %s\n", options.output.c_str(), DescribeStream(format, channels, rate, frames).c_str());
  if (!note.empty()) {
    std::printf("note   %s\n", note.c_str());
  }
  return 0;
}

int RunEffects() {
  for (const EffectDefinition* effect : EffectRegistry::Instance().All()) {
    std::printf("%s\n  %s\n", effect->name.c_str(), effect->description.c_str());
    for (const EffectKey& key : effect->keys) {
      std::printf("  %s:%s=%s  %s, %s to %s %s, default %s\n", effect->name.c_str(), key.name.c_str(),
                  FormatNumber(key.defaultValue).c_str(), key.description.c_str(), FormatNumber(key.min).c_str(),
                  FormatNumber(key.max).c_str(), key.unit.c_str(), FormatNumber(key.defaultValue).c_str());
    }
    std::printf("  takes %s\n", effect->accepts.c_str());
    if (!effect->note.empty()) {
      std::printf("  %s\n", effect->note.c_str());
    }
    std::printf("\n");
  }
  std::printf("Use as name:key=value,key=value; a bare name takes every default.\n");
  return 0;
}

}  // namespace vexdsp
