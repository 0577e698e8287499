// vexdsp noiseprint: captures a noise print from a noise-only selection of
// a sound file, for the denoise effect.

#include "vexaudiodsp/nonoise/NoisePrint.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "AudioFile.h"
#include "CliError.h"
#include "Command.h"
#include "Pipeline.h"

namespace vexdsp {
namespace {

class NoisePrintCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("IN", input_, "Input sound file")->required();
    app.add_option("--start", start_, "Start of the noise-only selection, in seconds")->required();
    app.add_option("--end", end_, "End of the noise-only selection, in seconds")->required();
    app.add_option("-o,--output", output_, "Noise print file to write")->required();
    app.add_option("--fft", fftSize_, "FFT size of the print: 1024, 2048, 4096 (default), 8192 or 16384")
        ->check(CLI::IsMember({1024, 2048, 4096, 8192, 16384}));
    app.footer(
        "Select a stretch that holds only the noise to remove (room tone, hiss, hum), ideally a second or more.\n"
        "Example: vexdsp noiseprint take.wav --start 0.2 --end 1.5 -o take.vxnp\n"
        "         vexdsp process take.wav clean.wav denoise:print=take.vxnp,reduction=24");
  }

  int Run() override {
    if (!std::isfinite(start_) || !std::isfinite(end_) || start_ < 0.0) {
      throw UsageError("--start must be a time of 0 seconds or more");
    }
    if (end_ <= start_) throw UsageError("--end must come after --start");
    AudioFileReader reader(input_);
    const int channels = reader.GetNumChannels();
    const int rate = reader.GetSampleRate();
    const std::int64_t first = std::llround(start_ * rate);
    std::int64_t last = std::llround(end_ * rate);
    const std::int64_t frames = reader.GetNumFrames();
    if (frames >= 0 && first >= frames) {
      throw UsageError("--start " + dsp::host::FormatNumber(start_) + " s lies beyond the end of '" + input_ + "' (" +
                       dsp::host::FormatNumber(static_cast<double>(frames) / rate) + " s)");
    }
    std::string note;
    if (frames >= 0 && last > frames) {
      note = "the selection was cut at the end of the file";
      last = frames;
    }
    const std::int64_t needed = fftSize_ + 3;
    if (last - first < needed) {
      throw UsageError("the selection is too short for a noise print: " + std::to_string(last - first) +
                       " samples, at least " + std::to_string(needed) + " (" +
                       dsp::host::FormatNumber(std::ceil(1000.0 * needed / rate) / 1000.0) + " s) at FFT size " +
                       std::to_string(fftSize_) + "; a second or more of noise gives a steadier print");
    }

    FileSource source(reader, true);
    dsp::nonoise::NoisePrint print;
    std::string error;
    const bool captured = dsp::nonoise::CaptureNoisePrintFromSource(source, channels, rate, first, last - first,
                                                                    fftSize_, &print, &error);
    source.Check();
    source.WarnSilenced();
    if (!captured) throw CliError(error);
    if (!print.Save(output_, &error)) throw CliError(error);

    std::printf("in         %s: %d ch, %d Hz, selection %s to %s s (%lld samples)\n", input_.c_str(), channels, rate,
                dsp::host::FormatNumber(static_cast<double>(first) / rate).c_str(),
                dsp::host::FormatNumber(static_cast<double>(last) / rate).c_str(),
                static_cast<long long>(last - first));
    std::printf("print      %s: FFT %d, %d ch, %lld frames analysed\n", output_.c_str(), print.GetFFTSize(),
                print.GetChannels(), static_cast<long long>(print.GetFrames()));
    std::printf("steadiness %.2f dB level spread across frames (%s)\n", print.GetLevelSpreadDb(),
                print.GetLevelSpreadDb() <= 1.0 ? "steady noise" : "unsteady");
    const dsp::nonoise::NONOISE& record = print.GetRecord();
    double level = 0.0;
    for (int c = 0; c < print.GetChannels(); ++c) {
      for (int k = 1; k < print.GetFFTSize() / 2; ++k) level += record.averageCurve[c][k] * record.averageCurve[c][k];
    }
    std::printf("level      %.1f dB average bin magnitude (full-scale sine on a bin: -2.9 dB)\n",
                10.0 * std::log10(std::max(level / (print.GetChannels() * (print.GetFFTSize() / 2 - 1)), 1e-30)));
    if (!note.empty()) std::printf("note       %s\n", note.c_str());
    for (const std::string& warning : print.GetWarnings())
      std::fprintf(stderr, "vexdsp: warning: %s\n", warning.c_str());
    return 0;
  }

 private:
  std::string input_;
  std::string output_;
  double start_ = 0.0;
  double end_ = 0.0;
  int fftSize_ = 4096;
};

const CommandRegistration kNoisePrint{"noiseprint", "Capture a noise print from a noise-only selection for denoise.",
                                      [] { return std::make_unique<NoisePrintCommand>(); }};

}  // namespace
}  // namespace vexdsp
