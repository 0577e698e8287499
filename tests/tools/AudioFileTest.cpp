// Drives the command line's file reader and writer, its level meter and its
// progress line directly; files are checked with libsndfile's own integer
// reads, never through the code under test.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "AudioFile.h"
#include "CliError.h"
#include "Levels.h"
#include "Pipeline.h"
#include "Progress.h"
#include "support/CliFixture.h"

namespace {

namespace fs = std::filesystem;
using vexdsp::AudioFileReader;
using vexdsp::AudioFileWriter;
using vexdsp::ChooseOutputFormat;
using vexdsp::CliError;
using vexdsp::SampleFormat;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

class AudioFileTest : public vextest::CliFixture {
 protected:
  long Entries() const { return std::distance(fs::directory_iterator(dir_), fs::directory_iterator()); }

  // Writes planar channels through the writer under test and commits.
  void WriteFile(const std::string& name, int format, const std::vector<std::vector<float>>& planar,
                 AudioFileWriter** keep = nullptr) {
    writer_ = std::make_unique<AudioFileWriter>(Path(name), format, static_cast<int>(planar.size()), 48000);
    std::vector<const float*> pointers;
    for (const auto& channel : planar) pointers.push_back(channel.data());
    writer_->Write(pointers.data(), static_cast<int>(planar[0].size()));
    writer_->Commit();
    if (keep != nullptr) *keep = writer_.get();
  }

  // The file's samples as libsndfile's 32-bit full-scale ints, interleaved.
  std::vector<int> ReadInts(const std::string& name, SF_INFO* info = nullptr) const {
    SF_INFO local{};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_READ, &local);
    EXPECT_NE(file, nullptr) << sf_strerror(nullptr);
    if (file == nullptr) return {};
    std::vector<int> samples(static_cast<std::size_t>(local.frames * local.channels));
    EXPECT_EQ(sf_readf_int(file, samples.data(), local.frames), local.frames);
    sf_close(file);
    if (info != nullptr) *info = local;
    return samples;
  }

  std::unique_ptr<AudioFileWriter> writer_;
};

// Each integer format is rounded to the nearest code: every sample within
// half a step of the exact value and, over random input, no offset.
TEST_F(AudioFileTest, IntegerFormatsRoundToNearest) {
  const struct {
    int format, bits;
  } cases[] = {{SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16},  {SF_FORMAT_WAV | SF_FORMAT_PCM_24, 24},
               {SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 16}, {SF_FORMAT_AIFF | SF_FORMAT_PCM_24, 24},
               {SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 16}, {SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 24},
               {SF_FORMAT_WAV | SF_FORMAT_PCM_U8, 8},   {SF_FORMAT_WAV | SF_FORMAT_PCM_32, 32}};
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> uniform(-0.9f, 0.9f);
  std::vector<std::vector<float>> planar(2, std::vector<float>(20000));
  for (auto& channel : planar)
    for (float& x : channel) x = uniform(rng);
  for (const auto& c : cases) {
    SCOPED_TRACE(vexdsp::DescribeFormat(c.format));
    AudioFileWriter* writer = nullptr;
    WriteFile("r.wav", c.format, planar, &writer);
    EXPECT_EQ(writer->GetNumClipped(), 0);
    const std::vector<int> ints = ReadInts("r.wav");
    ASSERT_EQ(ints.size(), 40000u);
    const long double scale = std::ldexp(1.0L, c.bits - 1);
    long double sum = 0.0L, worst = 0.0L;
    for (std::size_t i = 0; i < ints.size(); ++i) {
      const long double code = std::ldexp(static_cast<long double>(ints[i]), c.bits - 32);
      const long double error = code - static_cast<long double>(planar[i % 2][i / 2]) * scale;
      sum += error;
      worst = std::max(worst, std::fabs(error));
    }
    EXPECT_LE(worst, 0.5L);
    EXPECT_LT(std::fabs(sum / ints.size()), 0.05L);  // a floor would give -0.5
  }
}

// Integer files read as float and written back at their word length come
// out bit for bit.
TEST_F(AudioFileTest, IntegerRoundTripIsBitExact) {
  for (const int format : {SF_FORMAT_WAV | SF_FORMAT_PCM_16, SF_FORMAT_AIFF | SF_FORMAT_PCM_24}) {
    const int shift = (format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16 ? 16 : 8;
    std::vector<int> codes;
    std::mt19937 rng(3);
    for (int i = -32768; i < 32768; ++i) codes.push_back(static_cast<int>(i * (1u << shift)));
    if (shift == 8)
      for (int i = 0; i < 65536; ++i) codes.push_back(static_cast<int>((rng() & 0xFFFFFF00u)));
    codes.push_back(static_cast<int>(0x80000000u));  // the most negative code
    codes.push_back(0x7FFFFFFF & ~((1 << shift) - 1));
    SF_INFO info{0, 44100, 1, format, 0, 0};
    SNDFILE* file = sf_open(Path("in.wav").c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(sf_writef_int(file, codes.data(), static_cast<sf_count_t>(codes.size())),
              static_cast<sf_count_t>(codes.size()));
    sf_close(file);

    AudioFileReader reader(Path("in.wav"));
    AudioFileWriter writer(Path("out.wav"), reader.GetFormat(), 1, 44100);
    std::vector<float> block(1000);
    float* pointer = block.data();
    for (int got; (got = reader.Read(&pointer, 1000)) > 0;) writer.Write(&pointer, got);
    writer.Commit();
    EXPECT_EQ(writer.GetNumClipped(), 0);
    EXPECT_EQ(ReadInts("out.wav"), codes);
  }
}

// NaN becomes 0 and infinities full scale, counted per channel; finite
// samples beyond the codes are clipped and counted. FLAC, which used to
// refuse NaN without a reason, takes the mapped codes.
TEST_F(AudioFileTest, NonFiniteAndClippedSamplesAreMappedAndCounted) {
  const std::vector<std::vector<float>> planar = {{kNan, 0.25f, kInf, -kInf, 1.0f, 1.5f, -1.0f, -1.01f},
                                                  {0.5f, -kNan, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f}};
  for (const int format : {SF_FORMAT_WAV | SF_FORMAT_PCM_16, SF_FORMAT_FLAC | SF_FORMAT_PCM_16}) {
    AudioFileWriter* writer = nullptr;
    WriteFile("n.wav", format, planar, &writer);
    EXPECT_EQ(writer->GetNumNonFinite(0), 3);
    EXPECT_EQ(writer->GetNumNonFinite(1), 1);
    EXPECT_EQ(writer->GetNumNonFinite(), 4);
    EXPECT_EQ(writer->GetNumClipped(), 3);  // 1.0, 1.5 and -1.01; -1.0 is the most negative code
    const std::vector<int> left = {0, 8192, 32767, -32768, 32767, 32767, -32768, -32768};
    const std::vector<int> ints = ReadInts("n.wav");
    ASSERT_EQ(ints.size(), 16u);
    for (std::size_t i = 0; i < 8; ++i) {
      EXPECT_EQ(ints[2 * i] >> 16, left[i]) << i;
      EXPECT_EQ(ints[2 * i + 1] >> 16, i == 1 ? 0 : 16384) << i;
    }
  }
  // Float keeps what it was given, counted all the same.
  AudioFileWriter* writer = nullptr;
  WriteFile("f.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, planar, &writer);
  EXPECT_EQ(writer->GetNumNonFinite(), 4);
  EXPECT_EQ(writer->GetNumClipped(), 0);
  SF_INFO info{};
  SNDFILE* file = sf_open(Path("f.wav").c_str(), SFM_READ, &info);
  ASSERT_NE(file, nullptr);
  std::vector<float> back(16);
  ASSERT_EQ(sf_readf_float(file, back.data(), 8), 8);
  sf_close(file);
  EXPECT_TRUE(std::isnan(back[0]));
  EXPECT_EQ(back[4], kInf);
  EXPECT_EQ(back[10], 1.5f);
}

// A plugged-in quantiser sees finite samples only and decides the codes
// when it leaves samples on the grid.
TEST_F(AudioFileTest, QuantiserRunsBeforeTheCodes) {
  struct FloorQuantizer : vexdsp::SampleQuantizer {
    void Prepare(int channels, double rate, int wordBits) override {
      numChannels = channels, sampleRate = rate, bits = wordBits;
    }
    void Quantize(float* const* planar, int numFrames) override {
      const float scale = std::ldexp(1.0f, bits - 1);
      for (int ch = 0; ch < numChannels; ++ch) {
        for (int i = 0; i < numFrames; ++i) {
          allFinite = allFinite && std::isfinite(planar[ch][i]);
          planar[ch][i] = std::floor(planar[ch][i] * scale) / scale;
        }
      }
      ++blocks;
    }
    int numChannels = 0, bits = 0, blocks = 0;
    double sampleRate = 0.0;
    bool allFinite = true;
  };
  auto quantizer = std::make_shared<FloorQuantizer>();
  AudioFileWriter writer(Path("q.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24, 1, 48000);
  writer.SetQuantizer(quantizer);
  EXPECT_EQ(quantizer->numChannels, 1);
  EXPECT_EQ(quantizer->bits, 24);
  EXPECT_EQ(quantizer->sampleRate, 48000.0);
  const float s = 1.0f / 8388608.0f;
  const std::vector<float> samples = {0.75f * s, -0.25f * s, kNan, 100.9f * s};
  const float* pointer = samples.data();
  writer.Write(&pointer, 4);
  writer.Commit();
  EXPECT_EQ(quantizer->blocks, 1);
  EXPECT_TRUE(quantizer->allFinite);
  const std::vector<int> ints = ReadInts("q.wav");
  ASSERT_EQ(ints.size(), 4u);
  EXPECT_EQ(ints[0] >> 8, 0);
  EXPECT_EQ(ints[1] >> 8, -1);
  EXPECT_EQ(ints[2] >> 8, 0);
  EXPECT_EQ(ints[3] >> 8, 100);
}

// The container is chosen for the declared length before anything is
// written: a WAV that would pass 4 GiB becomes RF64, an AIFF or FLAC that
// cannot hold the length is refused, RF64 and W64 inputs stay in theirs.
TEST_F(AudioFileTest, ContainerFollowsTheDeclaredLength) {
  const int wav16 = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  const auto choose = [](const std::string& path, int input, std::int64_t frames) {
    return ChooseOutputFormat(path, input, SampleFormat::kKeep, 2, 48000, nullptr, frames);
  };
  // 2^32 bytes of stereo 16-bit audio are 2^30 frames; a plain WAV's data
  // size field stops just short of that.
  const std::int64_t fourGiB = std::int64_t(1) << 30;
  EXPECT_EQ(choose("a.wav", wav16, 48000 * 60), wav16);
  EXPECT_EQ(choose("a.wav", wav16, fourGiB), SF_FORMAT_RF64 | SF_FORMAT_PCM_16);
  EXPECT_EQ(choose("a.wav", wav16, -1), SF_FORMAT_RF64 | SF_FORMAT_PCM_16);  // a stream
  EXPECT_EQ(choose("a.wav", SF_FORMAT_WAVEX | SF_FORMAT_FLOAT, fourGiB / 2), SF_FORMAT_RF64 | SF_FORMAT_FLOAT);
  EXPECT_EQ(choose("a.wav", SF_FORMAT_RF64 | SF_FORMAT_PCM_24, 100), SF_FORMAT_RF64 | SF_FORMAT_PCM_24);
  EXPECT_EQ(choose("a.wav", SF_FORMAT_W64 | SF_FORMAT_PCM_24, fourGiB * 4), SF_FORMAT_W64 | SF_FORMAT_PCM_24);
  EXPECT_EQ(choose("a.w64", wav16, fourGiB * 4), SF_FORMAT_W64 | SF_FORMAT_PCM_16);
  EXPECT_EQ(choose("a.rf64", wav16, 10), SF_FORMAT_RF64 | SF_FORMAT_PCM_16);
  EXPECT_EQ(choose("a.aiff", wav16, fourGiB / 2 - (std::int64_t(1) << 20)), SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
  EXPECT_THROW(choose("a.aiff", wav16, fourGiB / 2), CliError);               // AIFF sizes are signed 32-bit
  EXPECT_EQ(choose("a.aiff", wav16, -1), SF_FORMAT_AIFF | SF_FORMAT_PCM_16);  // the writer watches it
  EXPECT_EQ(choose("a.flac", wav16, std::int64_t(1) << 35), SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
  EXPECT_THROW(choose("a.flac", wav16, std::int64_t(1) << 36), CliError);
  EXPECT_EQ(Entries(), 0);

  const std::int64_t wavLimit = vexdsp::GetMaxFrames(wav16, 2);
  EXPECT_LE(wavLimit * 4 + 44, std::int64_t(UINT32_MAX));
  EXPECT_GT(wavLimit * 4, std::int64_t(UINT32_MAX) - (std::int64_t(4) << 20));
  EXPECT_EQ(vexdsp::GetMaxFrames(SF_FORMAT_RF64 | SF_FORMAT_PCM_16, 2), -1);
  EXPECT_EQ(choose("a.wav", wav16, wavLimit), wav16);
  EXPECT_EQ(choose("a.wav", wav16, wavLimit + 1), SF_FORMAT_RF64 | SF_FORMAT_PCM_16);
  const std::int64_t aiffLimit = vexdsp::GetMaxFrames(SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 2);
  EXPECT_EQ(choose("a.aif", wav16, aiffLimit), SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
  EXPECT_THROW(choose("a.aif", wav16, aiffLimit + 1), CliError);
  // More than two channels need the extensible header.
  EXPECT_EQ(ChooseOutputFormat("a.wav", wav16, SampleFormat::kKeep, 8, 48000, nullptr, 100),
            SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);

  // An RF64 .wav that fits is written as a plain (extensible) RIFF WAV.
  AudioFileWriter* writer = nullptr;
  WriteFile("small.wav", choose("small.wav", wav16, -1), {std::vector<float>(480, 0.25f)}, &writer);
  SF_INFO info{};
  EXPECT_EQ(ReadInts("small.wav", &info).size(), 480u);
  EXPECT_EQ(writer->GetFormat(), info.format);
  char magic[5] = {};
  std::ifstream(Path("small.wav"), std::ios::binary).read(magic, 4);
  EXPECT_STREQ(magic, "RIFF");
}

// The background sink hands blocks of any size to the file in order, across
// its slots, and equals writing them directly; a write that fails on its
// thread stops the producer and surfaces through the FileSink.
TEST_F(AudioFileTest, BackgroundSinkWritesInOrderAndReportsFailures) {
  const int format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> sample(-0.9f, 0.9f);
  const std::size_t frames = 250000;  // beyond the ring's three slots
  std::vector<std::vector<float>> planar(2, std::vector<float>(frames));
  for (auto& channel : planar) {
    for (float& v : channel) v = sample(rng);
  }
  WriteFile("direct.wav", format, planar);
  {
    AudioFileWriter writer(Path("background.wav"), format, 2, 48000);
    vexdsp::FileSink sink(writer);
    vexdsp::BackgroundFileSink background(sink, 2);
    std::size_t done = 0;
    for (int i = 0; done < frames; ++i) {
      const std::size_t block =
          std::min<std::size_t>(frames - done, std::vector<std::size_t>{1, 7, 4096, 70000, 513}[i % 5]);
      const float* pointers[2] = {planar[0].data() + done, planar[1].data() + done};
      ASSERT_TRUE(background.Write(pointers, static_cast<int>(block)));
      done += block;
    }
    background.Finish();
    sink.Check();
    writer.Commit();
  }
  EXPECT_EQ(ReadInts("background.wav"), ReadInts("direct.wav"));

  AudioFileWriter closed(Path("closed.wav"), format, 2, 48000);
  closed.Commit();
  vexdsp::FileSink sink(closed);
  vexdsp::BackgroundFileSink background(sink, 2);
  const float* pointers[2] = {planar[0].data(), planar[1].data()};
  bool refused = false;
  for (int i = 0; i < 64 && !refused; ++i) refused = !background.Write(pointers, 4096);
  EXPECT_TRUE(refused);
  background.Finish();
  EXPECT_THROW(sink.Check(), CliError);
}

// The read-ahead source hands out the file's frames in order for any block
// sizes, across its slots, then says 0 at the end, again and again.
TEST_F(AudioFileTest, BackgroundSourceReadsInOrderToTheEnd) {
  const std::size_t frames = 200003;  // beyond the ring's three slots, not a multiple of anything
  std::vector<std::vector<float>> planar(2, std::vector<float>(frames));
  for (std::size_t i = 0; i < frames; ++i) {
    planar[0][i] = static_cast<float>(i % 1000) / 1000.0f;
    planar[1][i] = -static_cast<float>(i % 777) / 777.0f;
  }
  WriteFile("in.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, planar);
  for (int pass = 0; pass < 2; ++pass) {
    AudioFileReader reader(Path("in.wav"));
    vexdsp::FileSource source(reader);
    vexdsp::BackgroundFileSource background(source, 2);
    if (pass == 1) continue;  // destroyed while reading ahead: no hang, no leak
    std::vector<std::vector<float>> got(2);
    std::vector<float> a(70000), b(70000);
    float* pointers[2] = {a.data(), b.data()};
    for (int i = 0;; ++i) {
      const int want = std::vector<int>{1, 7, 4096, 70000, 513}[static_cast<std::size_t>(i % 5)];
      const int n = background.Read(pointers, want);
      ASSERT_GE(n, 0);
      ASSERT_LE(n, want);
      if (n == 0) break;
      got[0].insert(got[0].end(), a.begin(), a.begin() + n);
      got[1].insert(got[1].end(), b.begin(), b.begin() + n);
    }
    EXPECT_EQ(background.Read(pointers, 10), 0);
    EXPECT_EQ(got[0], planar[0]);
    EXPECT_EQ(got[1], planar[1]);
    EXPECT_EQ(source.GetFramesRead(), static_cast<std::int64_t>(frames));
    source.Check();
  }
}

// "-" reads standard input: the length is unknown until the stream ends,
// and every frame arrives.
TEST_F(AudioFileTest, StandardInputIsAStreamOfUnknownLength) {
  const int frames = 30000;
  std::vector<int> codes(static_cast<std::size_t>(frames) * 2);
  for (std::size_t i = 0; i < codes.size(); ++i) codes[i] = static_cast<int>((i * 7919u % 65536u) << 16);
  SF_INFO info{0, 48000, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
  SNDFILE* file = sf_open(Path("s.wav").c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr);
  sf_writef_int(file, codes.data(), frames);
  sf_close(file);
  std::ifstream in(Path("s.wav"), std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const int savedStdin = dup(STDIN_FILENO);
  ASSERT_EQ(dup2(pipeFds[0], STDIN_FILENO), STDIN_FILENO);
  close(pipeFds[0]);
  std::thread feeder([&] {
    for (std::size_t done = 0; done < bytes.size();) {
      const ssize_t n = write(pipeFds[1], bytes.data() + done, bytes.size() - done);
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    close(pipeFds[1]);
  });
  std::vector<int> got;
  std::int64_t declared = 0;
  {
    AudioFileReader reader("-");
    declared = reader.GetNumFrames();
    EXPECT_TRUE(reader.IsStream());
    std::vector<float> left(4096), right(4096);
    float* pointers[2] = {left.data(), right.data()};
    for (int n; (n = reader.Read(pointers, 4096)) > 0;) {
      for (int i = 0; i < n; ++i) {
        got.push_back(static_cast<int>(std::lround(left[i] * 32768.0f)) * 65536);
        got.push_back(static_cast<int>(std::lround(right[i] * 32768.0f)) * 65536);
      }
    }
    EXPECT_EQ(reader.Read(pointers, 4096), 0);
  }
  feeder.join();
  dup2(savedStdin, STDIN_FILENO);
  close(savedStdin);
  EXPECT_LT(declared, 0);
  EXPECT_EQ(got, codes);
}

TEST_F(AudioFileTest, OutputKeepsPermissionsAndFitsTheNameLimit) {
  const std::vector<std::vector<float>> audio = {std::vector<float>(100, 0.1f)};
  WriteFile("keep.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, audio);
  ASSERT_EQ(chmod(Path("keep.wav").c_str(), 0640), 0);
  WriteFile("keep.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, audio);
  struct stat st {};
  ASSERT_EQ(stat(Path("keep.wav").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);

  const mode_t mask = umask(022);
  WriteFile("new.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, audio);
  umask(mask);
  ASSERT_EQ(stat(Path("new.wav").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);

  // 255 bytes is the usual limit for the final name; the temporary name
  // must fit as well, a multi-byte character cut whole.
  const std::string longest = std::string(240, 'a') + "\xC3\xA9\xC3\xA9" + std::string(7, 'b') + ".wav";
  ASSERT_EQ(longest.size(), 255u);
  WriteFile(longest, SF_FORMAT_WAV | SF_FORMAT_PCM_16, audio);
  EXPECT_TRUE(fs::exists(Path(longest)));
  EXPECT_THROW(AudioFileWriter(Path("x" + longest), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1, 48000), CliError);
  EXPECT_EQ(Entries(), 3);
}

// A run cut short by a signal leaves no temporary file behind; a write the
// file-size limit refuses is reported with the system's reason.
TEST_F(AudioFileTest, SignalsAndWriteFailuresLeaveNoTemporaryFile) {
  const std::string path = Path("out.wav");
  const auto runChild = [&](int signal) {
    const pid_t pid = fork();
    if (pid == 0) {
      if (signal == SIGXFSZ) {
        const rlimit limit{1 << 16, 1 << 16};
        setrlimit(RLIMIT_FSIZE, &limit);
      }
      AudioFileWriter writer(path, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 1, 48000);
      std::vector<float> block(8192, 0.5f);
      const float* pointer = block.data();
      for (int i = 0; i < 8; ++i) writer.Write(&pointer, 8192);  // past the limit: SIGXFSZ
      if (signal != SIGXFSZ) raise(signal);
      _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
  };
  for (const int signal : {SIGPIPE, SIGXFSZ, SIGTERM, SIGINT, SIGHUP}) {
    const int status = runChild(signal);
    ASSERT_TRUE(WIFSIGNALED(status)) << strsignal(signal) << " status " << status;
    EXPECT_EQ(WTERMSIG(status), signal);
    EXPECT_EQ(Entries(), 0) << strsignal(signal);
  }

  // With SIGXFSZ ignored the same write fails with EFBIG instead, and says so.
  const pid_t pid = fork();
  if (pid == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{1 << 16, 1 << 16};
    setrlimit(RLIMIT_FSIZE, &limit);
    try {
      AudioFileWriter writer(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1, 48000);
      std::vector<float> block(8192, 0.5f);
      const float* pointer = block.data();
      for (int i = 0; i < 8; ++i) writer.Write(&pointer, 8192);
      writer.Commit();
    } catch (const CliError& error) {
      _exit(std::string(error.what()).find("too large") != std::string::npos ? 3 : 4);
    }
    _exit(5);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
  EXPECT_EQ(Entries(), 0);

  // Destroyed without Commit: nothing is left either.
  { AudioFileWriter writer(path, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 1, 48000); }
  EXPECT_EQ(Entries(), 0);
}

TEST_F(AudioFileTest, FailuresCarryTheRealReason) {
  std::ofstream(Path("text.wav")) << "not a sound file at all";
  try {
    AudioFileReader reader(Path("text.wav"));
    ADD_FAILURE() << "a text file opened";
  } catch (const CliError& error) {
    const std::string message = error.what();
    EXPECT_NE(message.find("text.wav"), std::string::npos) << message;
    EXPECT_EQ(message.find("No Error"), std::string::npos) << message;
  }
  try {
    AudioFileWriter writer(Path("missing/out.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1, 48000);
    ADD_FAILURE() << "wrote into a missing folder";
  } catch (const CliError& error) {
    EXPECT_NE(std::string(error.what()).find("No such file or directory"), std::string::npos) << error.what();
  }
}

// Independent sums in long double over the finite samples only.
TEST(LevelMeterTest, NonFiniteSamplesAreCountedAndKeptOutOfTheLevels) {
  std::vector<std::vector<float>> planar(2, std::vector<float>(3001));
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
  for (auto& channel : planar)
    for (float& x : channel) x = uniform(rng);
  planar[0][5] = kNan;
  planar[0][2999] = kInf;
  planar[1][17] = -kInf;
  planar[1][1000] = 0.75f;
  planar[0][1000] = -0.875f;
  long double sums[2] = {}, count[2] = {};
  for (int ch = 0; ch < 2; ++ch) {
    for (float x : planar[static_cast<std::size_t>(ch)]) {
      if (std::isfinite(x)) sums[ch] += static_cast<long double>(x) * x, count[ch] += 1;
    }
  }
  for (int block : {3001, 1000, 7}) {
    vexdsp::LevelMeter meter(2);
    for (int start = 0; start < 3001; start += block) {
      const float* pointers[2] = {planar[0].data() + start, planar[1].data() + start};
      meter.Add(pointers, std::min(block, 3001 - start));
    }
    EXPECT_EQ(meter.GetNumNonFinite(0), 2);
    EXPECT_EQ(meter.GetNumNonFinite(1), 1);
    EXPECT_EQ(meter.GetNumNonFinite(), 3);
    EXPECT_EQ(meter.GetPeak(0), 0.875);
    EXPECT_EQ(meter.GetPeak(1), 0.75);
    for (int ch = 0; ch < 2; ++ch) {
      EXPECT_NEAR(meter.GetRms(ch), std::sqrt(static_cast<double>(sums[ch] / count[ch])), 1e-12);
    }
    EXPECT_NEAR(meter.GetTotalRms(), std::sqrt(static_cast<double>((sums[0] + sums[1]) / (count[0] + count[1]))),
                1e-12);
  }
  // Squares of samples this large overflow float; the level must not.
  vexdsp::LevelMeter huge(1);
  const float big[3] = {1e30f, -3e30f, kNan};
  const float* pointer = big;
  huge.Add(&pointer, 3);
  EXPECT_EQ(huge.GetPeak(0), static_cast<double>(3e30f));
  const double a = 1e30f, b = -3e30f;
  EXPECT_NEAR(huge.GetRms(0) / std::sqrt((a * a + b * b) / 2.0), 1.0, 1e-12);
  EXPECT_EQ(huge.GetNumNonFinite(0), 1);
}

TEST(ProgressLineTest, UnknownTotalShowsElapsedAudio) {
  EXPECT_EQ(vexdsp::FormatProgressLine("processing", 48000 * 83 + 24000, -1, 48000.0, 0.0),
            "processing 0:01:23.5 of audio");
  EXPECT_EQ(vexdsp::FormatProgressLine("processing", 48000LL * 3725, -1, 48000.0, 10.0),
            "processing 1:02:05.0 of audio  372.5x real time");
  EXPECT_EQ(vexdsp::FormatProgressLine("measuring", 250, 1000, 48000.0, 3.0),
            "measuring [#######.......................]  25%  9 s left");
}

// What reaches users through the real binary.
class AudioFileCliTest : public AudioFileTest {
 protected:
  // A shell command line (pipes allowed), not just vexdsp's arguments.
  RunResult Run(const std::string& command) const { return Shell("{ " + command + "; }"); }
  void WriteFloat(const std::string& name, const std::vector<float>& interleaved, int channels) const {
    WriteInterleaved(name, interleaved, channels, 48000);
  }
};

// A stream of unknown length is processed to its real end, and the output
// is a plain WAV again once it turned out to fit.
TEST_F(AudioFileCliTest, ProcessReadsAStreamFromStandardInput) {
  std::vector<int> codes(2 * 100000);
  for (std::size_t i = 0; i < codes.size(); ++i) codes[i] = static_cast<int>((i * 2654435761u % 65536u) << 16);
  SF_INFO info{0, 48000, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
  SNDFILE* file = sf_open(Path("in.wav").c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr);
  sf_writef_int(file, codes.data(), 100000);
  sf_close(file);

  // Through raw PCM, sox cannot know the length and writes its placeholder
  // header (536869888 frames), as it does for any input of unknown length.
  const RunResult result =
      Run("sox in.wav -t raw - | sox -t raw -r 48000 -e signed -b 16 -c 2 - -t wav - | '" VEXDSP_BINARY
          "' process - out.wav gain");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  SF_INFO outInfo{};
  EXPECT_EQ(ReadInts("out.wav", &outInfo), codes);
  EXPECT_EQ(outInfo.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
  char magic[5] = {};
  std::ifstream(Path("out.wav"), std::ios::binary).read(magic, 4);
  EXPECT_STREQ(magic, "RIFF");
  EXPECT_EQ(result.err.find("vexdsp"), std::string::npos) << result.err;  // sox warns, we do not
  // The report names the container the file ended up in.
  EXPECT_NE(result.out.find("out    out.wav: WAVEX (Microsoft), Signed 16 bit PCM, 2 ch, 48000 Hz, 100000 frames"),
            std::string::npos)
      << result.out;

  const RunResult measured =
      Run("sox in.wav -t raw - | sox -t raw -r 48000 -e signed -b 16 -c 2 - -t wav - | '" VEXDSP_BINARY "' info -");
  ASSERT_EQ(measured.exitCode, 0) << measured.err;
  EXPECT_NE(measured.out.find("frames    100000\n"), std::string::npos) << measured.out;
}

// A WAV cut short is read as far as it goes, and the user is told, once per
// file; a whole file raises no warning.
TEST_F(AudioFileCliTest, TruncatedWavIsReadAndReported) {
  WriteFloat("whole.wav", std::vector<float>(2 * 4800, 0.25f), 2);
  std::filesystem::copy_file(Path("whole.wav"), Path("cut.wav"));
  std::filesystem::resize_file(Path("cut.wav"), std::filesystem::file_size(Path("whole.wav")) - 8 * 1000 - 3);
  RunResult result = Run("'" VEXDSP_BINARY "' info cut.wav");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err,
            "vexdsp: warning: 'cut.wav' ends early: its header declares 4800 frames, the file holds 3799; "
            "reading those\n");
  EXPECT_NE(result.out.find("frames    3799\n"), std::string::npos) << result.out;
  result = Run("'" VEXDSP_BINARY "' info whole.wav");
  EXPECT_EQ(result.err, "");
}

TEST_F(AudioFileCliTest, NonFiniteSamplesAreReportedNotHidden) {
  std::vector<float> audio(2 * 4800, 0.25f);
  audio[2 * 10] = kNan;
  audio[2 * 20] = kInf;
  audio[2 * 30 + 1] = -kInf;
  audio[2 * 40 + 1] = 1.5f;
  WriteFloat("nan.wav", audio, 2);

  RunResult result = Run("'" VEXDSP_BINARY "' info nan.wav");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  std::istringstream lines(result.out);
  std::vector<std::vector<double>> rows;
  for (std::string line; std::getline(lines, line);) {
    int ch = 0;
    double peakDb = 0, peakLinear = 0, rmsDb = 0, nonFinite = 0;
    if (std::sscanf(line.c_str(), "%d %lf %lf %lf %lf", &ch, &peakDb, &peakLinear, &rmsDb, &nonFinite) == 5) {
      rows.push_back({peakLinear, rmsDb, nonFinite});
    }
  }
  ASSERT_EQ(rows.size(), 2u) << result.out;
  EXPECT_EQ(rows[0], (std::vector<double>{0.25, -12.04, 2.0}));  // 20 log10(0.25) = -12.04
  EXPECT_EQ(rows[1][0], 1.5);
  EXPECT_EQ(rows[1][2], 1.0);
  result = Run("'" VEXDSP_BINARY "' info --json nan.wav");
  EXPECT_NE(result.out.find("\"non_finite\":[2,1]"), std::string::npos) << result.out;

  // Non-finite input is taken as silence (and said so), so only the
  // clipped sample is left to report from the output.
  result = Run("'" VEXDSP_BINARY "' process nan.wav out.wav gain --format pcm16");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err,
            "vexdsp: warning: 3 non-finite input samples (NaN or infinite) were taken as silence\n"
            "vexdsp: warning: 1 clipped samples\n");
  const std::vector<int> ints = ReadInts("out.wav");
  ASSERT_EQ(ints.size(), audio.size());
  EXPECT_EQ(ints[2 * 10], 0);
  EXPECT_EQ(ints[2 * 20], 0);
  EXPECT_EQ(ints[2 * 30 + 1], 0);
  EXPECT_EQ(ints[2 * 40 + 1] >> 16, 32767);

  // An effect that overflows float makes an infinity of its own: written as
  // full scale and reported.
  std::vector<float> huge(200, 0.0f);
  huge[2 * 50] = 1e37f;
  WriteFloat("huge.wav", huge, 2);
  result = Run("'" VEXDSP_BINARY "' process huge.wav out2.wav gain:db=48 --format pcm16");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "vexdsp: warning: 1 non-finite samples (NaN written as 0, infinities as full scale)\n");
  EXPECT_EQ(ReadInts("out2.wav")[2 * 50] >> 16, 32767);
}

}  // namespace
