// The time-domain effects through the real vexdsp binary: listing, the
// reverb and delay ringing out with --tail auto, the stereo-only effects
// refusing other channel counts, named choices.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/CliFixture.h"
#include "support/TestSignals.h"

namespace {

using vextest::ReadText;

namespace fs = std::filesystem;

struct Audio {
  int channels = 0, rate = 48000;
  std::vector<float> samples;  // interleaved
  sf_count_t Frames() const { return channels == 0 ? 0 : static_cast<sf_count_t>(samples.size()) / channels; }
  float At(sf_count_t frame, int ch) const { return samples[static_cast<std::size_t>(frame * channels + ch)]; }
};

class TimeEffectsCliTest : public vextest::CliFixture {
 protected:
  void Write(const std::string& name, const Audio& audio) const {
    SF_INFO info{0, audio.rate, audio.channels, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    ASSERT_EQ(sf_writef_float(file, audio.samples.data(), audio.Frames()), audio.Frames());
    sf_close(file);
  }
  Audio Read(const std::string& name) const {
    SF_INFO info{};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_READ, &info);
    EXPECT_NE(file, nullptr) << name << ": " << sf_strerror(nullptr);
    if (file == nullptr) return {};
    Audio audio{info.channels, info.samplerate,
                std::vector<float>(static_cast<std::size_t>(info.frames * info.channels))};
    EXPECT_EQ(sf_readf_float(file, audio.samples.data(), info.frames), info.frames);
    sf_close(file);
    return audio;
  }
  static Audio Impulse(int channels, sf_count_t frames) {
    Audio audio{channels, 48000, std::vector<float>(static_cast<std::size_t>(frames * channels), 0.0f)};
    for (int ch = 0; ch < channels; ++ch) audio.samples[static_cast<std::size_t>(ch)] = 0.5f;
    return audio;
  }
  static sf_count_t FirstSound(const Audio& audio, int ch, float above = 0.0f) {
    for (sf_count_t i = 0; i < audio.Frames(); ++i) {
      if (std::fabs(audio.At(i, ch)) > above) return i;
    }
    return -1;
  }
};

TEST_F(TimeEffectsCliTest, ListingShowsKeysChoicesAndChannelRules) {
  const RunResult list = Run("effects");
  ASSERT_EQ(list.exitCode, 0) << list.err;
  for (const char* text :
       {"reverb:room=0.8", "reverb:predelay=0", "analogdelay:mode=tape", "tape, bbd, lofi", "1/8d",
        "analogdelay:sync=off", "expander:shift=0", "widener:delay=0", "exciter:mode=tube", "retro, tape, tube"}) {
    EXPECT_NE(list.out.find(text), std::string::npos) << text;
  }
  for (const char* name : {"expander", "widener"}) {
    const RunResult one = Run(std::string("effects ") + name);
    EXPECT_NE(one.out.find("takes 2 channels"), std::string::npos) << one.out;
  }
}

// Bare names are audible.
TEST_F(TimeEffectsCliTest, BareNamesChangeTheSound) {
  Audio stereo{2, 48000, vextest::Noise(2 * 12000, 3, 0.3)};
  Write("stereo.wav", stereo);
  for (const char* name : {"reverb", "analogdelay", "expander", "widener", "exciter"}) {
    SCOPED_TRACE(name);
    const RunResult run = Run(std::string("process stereo.wav out.wav ") + name);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const Audio out = Read("out.wav");
    ASSERT_EQ(out.Frames(), stereo.Frames());
    EXPECT_GT(vextest::MaxAbsDiff(out.samples, stereo.samples), 0.01);
  }
}

// Expander and widener refuse anything but a pair, with a message naming
// what they take and no output file; bad choice names are usage errors.
TEST_F(TimeEffectsCliTest, PairEffectsRefuseOtherChannelCounts) {
  Audio stereo{2, 48000, vextest::Noise(2 * 4800, 3, 0.3)};
  Write("stereo.wav", stereo);
  Audio mono{1, 48000, vextest::Noise(4800, 4, 0.3)};
  Write("mono.wav", mono);
  Audio six{6, 48000, vextest::Noise(6 * 4800, 5, 0.3)};
  Write("six.wav", six);
  for (const char* args :
       {"process mono.wav bad.wav widener", "process six.wav bad.wav widener", "process mono.wav bad.wav expander"}) {
    SCOPED_TRACE(args);
    const RunResult run = Run(args);
    EXPECT_NE(run.exitCode, 0);
    EXPECT_NE(run.err.find("it takes 2 channels"), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(dir_ / "bad.wav"));
  }
  // The reverb takes any count.
  EXPECT_EQ(Run("process six.wav six-out.wav reverb").exitCode, 0);
  EXPECT_EQ(Run("process stereo.wav x.wav analogdelay:mode=disco").exitCode, 2);
  EXPECT_EQ(Run("process stereo.wav x.wav analogdelay:note=1/5").exitCode, 2);
}

// With --tail auto the reverb rings out past the input; the first wet sample
// of an impulse arrives at the shortest comb (1116 frames).
TEST_F(TimeEffectsCliTest, ReverbTailAndFirstEcho) {
  Write("impulse.wav", Impulse(1, 4800));
  const RunResult run = Run("process impulse.wav out.wav reverb:dry=0,wet=100,lowcut=20,highcut=20000 --tail auto");
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const Audio out = Read("out.wav");
  EXPECT_GT(out.Frames(), 48000 * 3) << "room 0.8 rings for seconds";
  EXPECT_EQ(FirstSound(out, 0), 1116);
  double late = 0.0;
  for (sf_count_t i = 48000; i < 48000 + 4800; ++i) late = std::max(late, double(std::fabs(out.At(i, 0))));
  EXPECT_GT(late, 1e-5) << "still ringing after a second";
  double end = 0.0;
  for (sf_count_t i = out.Frames() - 4800; i < out.Frames(); ++i) end = std::max(end, double(std::fabs(out.At(i, 0))));
  EXPECT_LT(end, 1e-5) << "rung out by the end of the tail";
}

// A tempo-synced eighth note at 120 bpm is 250 ms: the first repeat comes
// 12001 frames after the impulse (give or take the LFO's 4.8 samples and the
// line's low-pass), and --tail auto keeps the repeats.
TEST_F(TimeEffectsCliTest, SyncedDelayRepeatsOnTheNote) {
  Write("impulse.wav", Impulse(2, 2400));
  const RunResult run =
      Run("process impulse.wav out.wav analogdelay:sync=on,note=1/8,tempo=120,dry=0,wet=100,"
          "feedback=50,mode=bbd --tail auto");
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const Audio out = Read("out.wav");
  EXPECT_GT(out.Frames(), 2400 + 4 * 12001);
  for (int ch = 0; ch < 2; ++ch) {
    const sf_count_t first = FirstSound(out, ch, 1e-4f);
    EXPECT_GE(first, 12001 - 6) << ch;
    EXPECT_LE(first, 12001 + 6) << ch;
  }
}

}  // namespace
