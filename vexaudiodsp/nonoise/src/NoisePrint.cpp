#include "vexaudiodsp/nonoise/NoisePrint.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "vexaudiodsp/host/Render.h"
#include "vexaudiodsp/nonoise/CaptureNoisePrint.h"

namespace dsp {
namespace nonoise {

namespace {

constexpr char kMagic[8] = {'V', 'X', 'N', 'P', 'R', 'I', 'N', 'T'};
constexpr std::size_t kHeaderBytes = 48;
constexpr std::size_t kHashBytes = 8;
constexpr int kMinFFTSize = 16;
constexpr int kMaxFFTSize = 16384;
constexpr int kMaxChannels = 64;
constexpr double kMinRate = 1000.0;
constexpr double kMaxRate = 768000.0;
// Fewer frames than this give curves dominated by chance (the minimum and
// maximum of a handful of Rayleigh-distributed values).
constexpr std::int64_t kFewFrames = 16;
// Steady noise over thousands of samples moves by a few tenths of a dB from
// frame to frame; more means speech, music or a level change.
constexpr double kUnsteadyDb = 2.0;

std::uint64_t Fnv1a(const std::uint8_t* data, std::size_t size) {
  std::uint64_t h = 14695981039346656037ull;
  for (std::size_t i = 0; i < size; ++i) {
    h ^= data[i];
    h *= 1099511628211ull;
  }
  return h;
}

std::size_t FileBytes(std::size_t channels, std::size_t bins) {
  return kHeaderBytes + channels * (2 + 3 * bins) * sizeof(double) + bins * sizeof(float) + kHashBytes;
}

class Writer {
 public:
  explicit Writer(std::vector<std::uint8_t>* out) : out_(out) {}
  template <typename T>
  void Put(T value) {
    std::uint8_t raw[sizeof(T)];
    std::memcpy(raw, &value, sizeof(T));
    out_->insert(out_->end(), raw, raw + sizeof(T));
  }

 private:
  std::vector<std::uint8_t>* out_;
};

class Reader {
 public:
  explicit Reader(const std::vector<std::uint8_t>& in) : in_(in) {}
  template <typename T>
  T Get() {
    T value{};
    if (pos_ + sizeof(T) <= in_.size()) std::memcpy(&value, in_.data() + pos_, sizeof(T));
    pos_ += sizeof(T);
    return value;
  }

 private:
  const std::vector<std::uint8_t>& in_;
  std::size_t pos_ = 0;
};

bool Fail(std::string* error, const std::string& why) {
  if (error != nullptr) *error = why;
  return false;
}

bool ValidMagnitude(double v) { return std::isfinite(v) && v >= 0.0; }

}  // namespace

NoisePrint::NoisePrint() = default;

NoisePrint::~NoisePrint() { FreeArrays(&record_); }

NoisePrint::NoisePrint(const NoisePrint& other) : sampleRate_(other.sampleRate_), levelSpreadDb_(other.levelSpreadDb_) {
  CopyNoNoise(&other.record_, &record_, true);
}

NoisePrint& NoisePrint::operator=(const NoisePrint& other) {
  if (&other != this) {
    CopyNoNoise(&other.record_, &record_, true);
    sampleRate_ = other.sampleRate_;
    levelSpreadDb_ = other.levelSpreadDb_;
  }
  return *this;
}

void NoisePrint::Assign(const CaptureNoisePrint& capture) {
  Assign(*capture.GetParam(), capture.GetSampleRate(), capture.GetLevelSpreadDb());
}

void NoisePrint::Assign(const NONOISE& record, double sampleRate, double levelSpreadDb) {
  CopyNoNoise(&record, &record_, true);
  sampleRate_ = sampleRate;
  levelSpreadDb_ = levelSpreadDb;
}

std::vector<std::string> NoisePrint::GetWarnings() const {
  std::vector<std::string> warnings;
  if (IsEmpty()) return warnings;
  char line[256];
  if (GetFrames() < kFewFrames) {
    std::snprintf(line, sizeof line,
                  "only %lld analysis frames: the print will be rough; select at least %.1f s of noise",
                  static_cast<long long>(GetFrames()),
                  (kFewFrames * record_.fftSize / 3.0 + record_.fftSize) / std::max(sampleRate_, 1.0));
    warnings.emplace_back(line);
  }
  if (levelSpreadDb_ > kUnsteadyDb) {
    std::snprintf(line, sizeof line,
                  "the level moved by %.1f dB (standard deviation) across the selection: it seems to hold more than "
                  "steady noise, and whatever else it holds will be reduced too",
                  levelSpreadDb_);
    warnings.emplace_back(line);
  }
  return warnings;
}

std::vector<std::uint8_t> NoisePrint::Serialize() const {
  std::vector<std::uint8_t> out;
  if (IsEmpty()) return out;
  const int n = record_.fftSize;
  const int bins = n / 2 + 1;
  const int channels = record_.channelCount;
  out.reserve(FileBytes(static_cast<std::size_t>(channels), static_cast<std::size_t>(bins)));
  out.insert(out.end(), kMagic, kMagic + sizeof kMagic);
  Writer w(&out);
  w.Put<std::uint32_t>(kVersion);
  w.Put<double>(sampleRate_);
  w.Put<std::uint32_t>(static_cast<std::uint32_t>(n));
  w.Put<std::uint32_t>(static_cast<std::uint32_t>(channels));
  w.Put<std::uint32_t>(static_cast<std::uint32_t>(record_.overlap));
  w.Put<std::uint64_t>(static_cast<std::uint64_t>(record_.snapshotCount));
  w.Put<double>(levelSpreadDb_);
  for (int c = 0; c < channels; ++c) {
    w.Put<double>(record_.channelMin[c]);
    w.Put<double>(record_.channelMax[c]);
    for (const double* curve : {record_.minCurve[c], record_.maxCurve[c], record_.averageCurve[c]}) {
      for (int k = 0; k < bins; ++k) w.Put<double>(curve[k]);
    }
  }
  for (int k = 0; k < bins; ++k) w.Put<float>(record_.binCurve[k]);
  w.Put<std::uint64_t>(Fnv1a(out.data(), out.size()));
  return out;
}

bool NoisePrint::Deserialize(const std::vector<std::uint8_t>& bytes, std::string* error) {
  if (bytes.size() < kHeaderBytes + kHashBytes) return Fail(error, "not a noise print (file too short)");
  if (std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0) return Fail(error, "not a noise print (wrong magic)");
  Reader r(bytes);
  r.Get<std::uint64_t>();
  const auto version = r.Get<std::uint32_t>();
  if (version != kVersion) {
    return Fail(error, "noise print version " + std::to_string(version) + " is not supported (this build reads " +
                           std::to_string(kVersion) + ")");
  }
  const auto rate = r.Get<double>();
  const auto n = r.Get<std::uint32_t>();
  const auto channels = r.Get<std::uint32_t>();
  const auto overlap = r.Get<std::uint32_t>();
  const auto frames = r.Get<std::uint64_t>();
  const auto spread = r.Get<double>();
  if (!(rate >= kMinRate && rate <= kMaxRate)) return Fail(error, "noise print has an invalid sample rate");
  if (n < kMinFFTSize || n > kMaxFFTSize || (n & (n - 1)) != 0) {
    return Fail(error, "noise print has an invalid FFT size " + std::to_string(n));
  }
  if (channels < 1 || channels > kMaxChannels) return Fail(error, "noise print has an invalid channel count");
  if (overlap < 3 || overlap > n) return Fail(error, "noise print has an invalid overlap");
  if (frames < 1 || frames > (1ull << 40)) return Fail(error, "noise print has an invalid frame count");
  if (!std::isfinite(spread) || spread < 0.0) return Fail(error, "noise print has an invalid level spread");
  const std::size_t bins = n / 2 + 1;
  const std::size_t expected = FileBytes(channels, bins);
  if (bytes.size() < expected) return Fail(error, "noise print is truncated");
  if (bytes.size() > expected) return Fail(error, "noise print has trailing bytes");
  std::uint64_t stored = 0;
  std::memcpy(&stored, bytes.data() + expected - kHashBytes, kHashBytes);
  if (stored != Fnv1a(bytes.data(), expected - kHashBytes))
    return Fail(error, "noise print is corrupt (hash mismatch)");

  NONOISE record;
  record.fftSize = static_cast<std::int16_t>(n);
  record.channelCount = static_cast<std::int16_t>(channels);
  record.overlap = static_cast<std::int16_t>(overlap);
  record.snapshotCount = static_cast<std::int64_t>(frames);
  AllocateArrays(&record);
  bool valid = true;
  for (std::uint32_t c = 0; c < channels; ++c) {
    record.channelMin[c] = r.Get<double>();
    record.channelMax[c] = r.Get<double>();
    valid = valid && ValidMagnitude(record.channelMin[c]) && ValidMagnitude(record.channelMax[c]);
    for (double* curve : {record.minCurve[c], record.maxCurve[c], record.averageCurve[c]}) {
      for (std::size_t k = 0; k < bins; ++k) {
        curve[k] = r.Get<double>();
        valid = valid && ValidMagnitude(curve[k]);
      }
      // Bins above N/2 mirror the stored half, as a capture leaves them.
      for (std::size_t k = 1; k + 1 < bins; ++k) curve[n - k] = curve[k];
    }
  }
  for (std::size_t k = 0; k < bins; ++k) {
    record.binCurve[k] = r.Get<float>();
    valid = valid && std::isfinite(record.binCurve[k]);
  }
  for (std::size_t k = 1; k + 1 < bins; ++k) record.binCurve[n - k] = record.binCurve[k];
  if (!valid) {
    FreeArrays(&record);
    return Fail(error, "noise print holds invalid (negative or non-finite) values");
  }
  CopyNoNoise(&record, &record_, true);
  FreeArrays(&record);
  sampleRate_ = rate;
  levelSpreadDb_ = spread;
  return true;
}

bool NoisePrint::Save(const std::string& path, std::string* error) const {
  if (IsEmpty()) return Fail(error, "the noise print is empty");
  const std::vector<std::uint8_t> bytes = Serialize();
  const std::string temporary = path + ".partial";
  {
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    if (!file) return Fail(error, "cannot write '" + temporary + "'");
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
      std::remove(temporary.c_str());
      return Fail(error, "writing '" + temporary + "' failed");
    }
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    return Fail(error, "cannot rename the print to '" + path + "'");
  }
  return true;
}

bool NoisePrint::Load(const std::string& path, std::string* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return Fail(error, "cannot open noise print '" + path + "'");
  std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::string why;
  if (!Deserialize(bytes, &why)) return Fail(error, "'" + path + "': " + why);
  return true;
}

bool CaptureNoisePrintFromSource(host::FrameSource& source, int numChannels, double sampleRate, std::int64_t start,
                                 std::int64_t length, int fftSize, NoisePrint* print, std::string* error) {
  if (print == nullptr) return Fail(error, "no print to fill");
  NONOISE settings;
  settings.fftSize = static_cast<std::int16_t>(fftSize);
  settings.channelCount = static_cast<std::int16_t>(numChannels);
  CaptureNoisePrint capture(&settings);
  const std::int64_t minimum = static_cast<std::int64_t>(fftSize) + 3;
  if (length < minimum) {
    char line[200];
    std::snprintf(line, sizeof line,
                  "the selection is too short for a noise print: %lld samples, at least %lld needed (%.3f s at %g Hz)",
                  static_cast<long long>(length), static_cast<long long>(minimum),
                  static_cast<double>(minimum) / sampleRate, sampleRate);
    return Fail(error, line);
  }
  std::string why;
  if (!host::RunAnalyzer(capture, source, numChannels, sampleRate, start, length, nullptr, &why)) {
    return Fail(error, why);
  }
  print->Assign(capture);
  return true;
}

}  // namespace nonoise
}  // namespace dsp
