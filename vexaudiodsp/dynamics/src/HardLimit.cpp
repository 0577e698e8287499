#include "vexaudiodsp/dynamics/HardLimit.h"

#include <algorithm>
#include <cmath>

#include "vexaccelerate/Denormals.h"

namespace dsp {
namespace {

struct Range {
  float min;
  float max;
  float defaultValue;
};

const Range kRanges[HardLimit::kNumParams] = {
    {-100.0f, 0.0f, -0.1f},   // ceiling, dB
    {-100.0f, 50.0f, 0.0f},   // input boost, dB
    {5.0f, 20.0f, 7.0f},      // look-ahead, ms
    {40.0f, 200.0f, 100.0f},  // release, ms
    {-0.5f, 1.49f, 1.0f},     // link channels
    {-0.5f, 1.49f, 1.0f},     // smooth release
    {-0.5f, 1.49f, 0.0f},     // true-peak detection
};

// ln(1 / 0.15): the envelope covers 85 % of its way in the release time.
constexpr double kReleaseLog = 1.8971199848858813;
constexpr int kChunk = 8192;
// Interpolated maxima kept per channel, by frame; more than the 35-frame
// alignment lag needs.
constexpr int kPeakHistory = 64;
constexpr float kLargest = 1e30f;

bool IsSwitch(int index) { return index >= HardLimit::kLinkChannels && index <= HardLimit::kTruePeakDetection; }

}  // namespace

HardLimit::HardLimit() {
  for (int i = 0; i < kNumParams; ++i) params_[i] = kRanges[i].defaultValue;
}

void HardLimit::SetChannels(int channels) {
  if (channels == channels_) return;
  channels_ = channels;
  truePeaks_.clear();
  delayBuffer_.Reset();
  needsInit_ = true;
  dirty_ = true;
}

void HardLimit::SetSampleRate(int sampleRate) {
  if (sampleRate == sampleRate_) return;
  sampleRate_ = sampleRate;
  truePeaks_.clear();
  delayBuffer_.Reset();
  needsInit_ = true;
  dirty_ = true;
}

void HardLimit::SetParameter(int index, float value) {
  if (index < 0 || index >= kNumParams) return;
  const Range& r = kRanges[index];
  if (!(value >= r.min && value <= r.max)) value = (r.min + r.max) / 2.0f;
  if (IsSwitch(index)) value = static_cast<float>(static_cast<int>(value + 0.5f));
  params_[index] = value;
  if (index == kTruePeakDetection && value == 1.0f) params_[kSmoothRelease] = 1.0f;
  dirty_ = true;
}

float HardLimit::GetParameter(int index) const { return index >= 0 && index < kNumParams ? params_[index] : 0.0f; }

void HardLimit::GetBounds(int index, float& min, float& max) {
  if (index < 0 || index >= kNumParams) return;
  min = kRanges[index].min;
  max = kRanges[index].max;
}

float HardLimit::GetDefault(int index) { return index >= 0 && index < kNumParams ? kRanges[index].defaultValue : 0.0f; }

int HardLimit::GetLatency() const {
  const int ring = static_cast<int>(0.02 * sampleRate_);
  const bool truePeak = needsInit_ ? params_[kTruePeakDetection] >= 0.5f : truePeakActive_;
  return ring + (truePeak ? static_cast<int>(TruePeak().GetLatency()) : 0);
}

void HardLimit::Resume() {
  const int channels = std::max(0, channels_);
  ringLength_ = std::max(2, static_cast<int>(0.02 * sampleRate_));
  state_.assign(static_cast<std::size_t>(channels), Channel());
  inChunk_.assign(static_cast<std::size_t>(channels), nullptr);
  outChunk_.assign(static_cast<std::size_t>(channels), nullptr);
  sampleRings_.assign(static_cast<std::size_t>(channels) * ringLength_, 0.0f);
  detectRings_.assign(static_cast<std::size_t>(channels) * ringLength_, 0.0f);
  queues_.assign(static_cast<std::size_t>(channels) * ringLength_, 0);
  truePeakActive_ = params_[kTruePeakDetection] >= 0.5f;
  truePeaks_.clear();
  if (truePeakActive_) {
    truePeaks_.resize(static_cast<std::size_t>(channels));
    for (TruePeak& tp : truePeaks_) tp.Init(kChunk, sampleRate_);
    const std::size_t factor = channels > 0 ? truePeaks_[0].GetResampleFactor() : 1;
    const int latency = static_cast<int>(TruePeak().GetLatency());
    delayBuffer_.Init(channels, latency + kChunk);
    oversampled_.assign(static_cast<std::size_t>(channels) * kChunk * factor, 0.0f);
    delayed_.assign(static_cast<std::size_t>(channels) * kChunk, 0.0f);
    interpolatedMax_.assign(static_cast<std::size_t>(channels) * kPeakHistory, 0.0f);
    zeros_.assign(static_cast<std::size_t>(latency), 0.0f);
  } else {
    delayBuffer_.Init(0, 0);
    oversampled_.clear();
    delayed_.clear();
    interpolatedMax_.clear();
    zeros_.clear();
  }
  needsInit_ = false;
  ApplyParameters();
  Reset();
}

void HardLimit::ApplyParameters() {
  const double rate = static_cast<double>(sampleRate_);
  long n = std::lround(params_[kLookAhead] / 1000.0 * rate);
  n = std::min<long>(n, ringLength_ - 1);
  const int lookAhead = n < 1 ? 1 : static_cast<int>(n);
  if (lookAhead != lookAhead_) rebuildWindow_ = true;
  lookAhead_ = lookAhead;
  targetGain_ = static_cast<float>(std::pow(10.0, params_[kInputBoost] / 20.0));
  ceiling_ = static_cast<float>(std::pow(10.0, params_[kCeiling] / 20.0));
  release_ = static_cast<float>(std::exp(-kReleaseLog / (rate * params_[kRelease] / 1000.0)));
  smooth_ = params_[kSmoothRelease] >= 0.5f;
  link_ = params_[kLinkChannels] >= 0.5f;
  dirty_ = false;
}

void HardLimit::Reset() {
  std::fill(sampleRings_.begin(), sampleRings_.end(), 0.0f);
  std::fill(detectRings_.begin(), detectRings_.end(), 0.0f);
  writeIndex_ = 0;
  rebuildWindow_ = true;
  for (Channel& c : state_) {
    c = Channel();
    c.envelope = smooth_ ? ceiling_ : 1.0f;
    // "Just left", so the first frame searches the window.
    c.slopePosition = ringLength_ - 1;
    c.windowMax = 0.0f;
  }
  currentGain_ = targetGain_;
  for (TruePeak& tp : truePeaks_) tp.Reset();
  if (truePeakActive_) {
    delayBuffer_.Reset();
    for (int c = 0; c < static_cast<int>(state_.size()); ++c) {
      delayBuffer_.Write(c, zeros_.data(), static_cast<int>(zeros_.size()));
    }
  }
  std::fill(interpolatedMax_.begin(), interpolatedMax_.end(), 0.0f);
  frameCount_ = 0;
}

void HardLimit::Process(float** in, float** out, int frames) {
  if (needsInit_) Resume();
  if (dirty_) ApplyParameters();
  if (frames <= 0 || state_.empty()) return;
  vexaccelerate::utility::ScopedFlushDenormals ftz;
  if (truePeakActive_) {
    for (int done = 0; done < frames;) {
      const int n = std::min(kChunk, frames - done);
      for (std::size_t c = 0; c < state_.size(); ++c) {
        inChunk_[c] = in[c] + done;
        outChunk_[c] = out[c] + done;
      }
      ProcessChunk(inChunk_.data(), outChunk_.data(), n, true);
      done += n;
    }
  } else {
    ProcessChunk(in, out, frames, false);
  }
  currentGain_ = targetGain_;
}

void HardLimit::PushWindow(Channel& s, int* queue, const float* d, int pos, int ring) {
  while (s.queueSize > 0) {
    int back = s.queueHead + s.queueSize - 1;
    if (back >= ring) back -= ring;
    if (d[queue[back]] >= d[pos]) break;
    --s.queueSize;
  }
  int slot = s.queueHead + s.queueSize;
  if (slot >= ring) slot -= ring;
  queue[slot] = pos;
  ++s.queueSize;
}

// The steepest straight line from the envelope to a peak in the window:
// max over k = 1..N of (D[w + k - 1] - env) / k, the first of equal slopes
// winning. No D exceeds the window maximum, which bounds the slopes still
// reachable and ends the scan early without changing its result: rising
// slopes shrink with k, so the scan stops once even the maximum at k could
// not beat the best; falling ones grow toward 0 with k, so those are
// scanned from the far end.
void HardLimit::SearchSlope(Channel& s, const float* d, float env, int w, int ring, int lookAhead) {
  const float headroom = s.windowMax - env;
  s.slope = -1.0f;
  if (headroom > 0.0f) {
    for (int k = 1, pos = w; k <= lookAhead; ++k, pos = pos + 1 == ring ? 0 : pos + 1) {
      if (headroom / static_cast<float>(k) <= s.slope) break;
      const float slope = (d[pos] - env) / static_cast<float>(k);
      if (slope > s.slope) {
        s.slope = slope;
        s.slopePosition = pos;
      }
    }
    return;
  }
  // Scanning backwards, an equal slope replaces the best so that the
  // smallest k still wins (but never the starting value -1 itself).
  bool found = false;
  for (int k = lookAhead; k >= 1; --k) {
    if (headroom / static_cast<float>(k) < s.slope) break;
    int pos = w + k - 1;
    if (pos >= ring) pos -= ring;
    const float slope = (d[pos] - env) / static_cast<float>(k);
    if (slope > s.slope || (found && slope == s.slope)) {
      s.slope = slope;
      s.slopePosition = pos;
      found = true;
    }
  }
}

void HardLimit::ProcessChunk(float** in, float** out, int frames, bool truePeak) {
  const int channels = static_cast<int>(state_.size());
  const int ring = ringLength_, lookAhead = lookAhead_;
  const float ceiling = ceiling_, release = release_;
  const bool smooth = smooth_, link = link_;
  const float g0 = currentGain_, gainStep = (targetGain_ - currentGain_) / static_cast<float>(frames);
  std::size_t factor = 1;
  int lagNear = 0, lagFar = 0;

  if (truePeak) {
    factor = truePeaks_[0].GetResampleFactor();
    const int latency = static_cast<int>(truePeaks_[0].GetLatency());
    // Interpolated frame t covers input times from t - latency / factor;
    // these two frames span the interval after the sample delayed by
    // `latency`, with a little on either side.
    lagFar = latency - latency / static_cast<int>(factor);
    lagNear = lagFar - 1;
    for (int c = 0; c < channels; ++c) {
      truePeaks_[c].Resample(in[c], static_cast<std::size_t>(frames), oversampled_.data() + c * kChunk * factor);
      delayBuffer_.Write(c, in[c], frames);
    }
    const int offset = delayBuffer_.GetValidDataSize() - frames - latency;
    for (int c = 0; c < channels; ++c) delayBuffer_.Read(c, delayed_.data() + c * kChunk, frames, offset);
  }

  int w = writeIndex_;
  std::int64_t t = frameCount_;
  for (int i = 0; i < frames; ++i, ++t) {
    const float g = g0 + static_cast<float>(i) * gainStep;
    const int leaving = w == 0 ? ring - 1 : w - 1;
    int newest = w + lookAhead - 1;
    if (newest >= ring) newest -= ring;
    float linked = 0.0f;
    for (int c = 0; c < channels; ++c) {
      Channel& s = state_[static_cast<std::size_t>(c)];
      const float* d = detectRings_.data() + static_cast<std::size_t>(c) * ring;
      float env = s.envelope;
      // Window maximum: a monotonic queue of ring positions whose values
      // fall from front to back gives the exact sliding maximum in O(1)
      // amortised time, whatever the signal.
      int* queue = queues_.data() + static_cast<std::size_t>(c) * ring;
      if (rebuildWindow_) {
        s.queueHead = 0;
        s.queueSize = 0;
        for (int k = 0, pos = w; k < lookAhead; ++k, pos = pos + 1 == ring ? 0 : pos + 1) {
          PushWindow(s, queue, d, pos, ring);
        }
      } else {
        if (s.queueSize > 0 && queue[s.queueHead] == leaving) {
          s.queueHead = s.queueHead + 1 == ring ? 0 : s.queueHead + 1;
          --s.queueSize;
        }
        PushWindow(s, queue, d, newest, ring);
      }
      s.windowMax = d[queue[s.queueHead]];

      if (s.slopePosition == leaving || rebuildWindow_) {
        SearchSlope(s, d, env, w, ring, lookAhead);
      } else {
        const float slope = (d[newest] - env) / static_cast<float>(lookAhead);
        if (slope > s.slope) {
          s.slope = slope;
          s.slopePosition = newest;
        }
      }
      if (s.slope > 0.0f) {
        env += s.slope;
      } else if (smooth) {
        env = env * release + std::max(ceiling, s.windowMax) * (1.0f - release);
      } else if (release * env >= s.windowMax) {
        env = release * env;
      }
      s.envelope = env;
      linked = std::max(linked, env);
    }
    rebuildWindow_ = false;

    for (int c = 0; c < channels; ++c) {
      Channel& s = state_[static_cast<std::size_t>(c)];
      const float m = link ? linked : s.envelope;
      const float gain = m > ceiling ? ceiling / m : 1.0f;
      float* samples = sampleRings_.data() + static_cast<std::size_t>(c) * ring;
      float* d = detectRings_.data() + static_cast<std::size_t>(c) * ring;

      float v = g * (truePeak ? delayed_[static_cast<std::size_t>(c) * kChunk + i] : in[c][i]);
      v = std::min(std::max(v, -kLargest), kLargest);
      float magnitude = std::fabs(v);
      if (truePeak) {
        const float* os = oversampled_.data() + c * kChunk * factor + static_cast<std::size_t>(i) * factor;
        float q = 0.0f;
        for (std::size_t j = 0; j < factor; ++j) q = std::max(q, std::fabs(os[j]));
        float* history = interpolatedMax_.data() + static_cast<std::size_t>(c) * kPeakHistory;
        history[t % kPeakHistory] = std::min(g * q, kLargest);
        const float near = history[(t - lagNear + kPeakHistory) % kPeakHistory];
        const float far = history[(t - lagFar + kPeakHistory) % kPeakHistory];
        magnitude = std::max(magnitude, std::max(near, far));
      }

      float y = gain * samples[w];
      // The envelope meets each peak exactly up to float rounding; clip
      // what rounding leaves over the ceiling.
      if (std::fabs(y) > ceiling) y = std::copysign(ceiling, y);
      s.gain = gain;
      out[c][i] = y;
      samples[w] = v;
      d[w] = magnitude;
    }
    w = w + 1 == ring ? 0 : w + 1;
  }
  writeIndex_ = w;
  frameCount_ = t;
}

}  // namespace dsp
