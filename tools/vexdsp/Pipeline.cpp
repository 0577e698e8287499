#include "Pipeline.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "CliError.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/host/Parameter.h"

namespace vexdsp {

int FileSource::Read(float* const* planar, int numFrames) {
  try {
    const int got = reader_.Read(planar, numFrames);
    if (silenceNonFinite_) {
      const int channels = reader_.GetNumChannels();
      const auto seen = static_cast<int>(std::clamp<std::int64_t>(countedTo_ - position_, 0, got));
      SilenceNonFinite(planar, channels, seen);
      unseen_.resize(static_cast<std::size_t>(channels));
      for (int ch = 0; ch < channels; ++ch) unseen_[static_cast<std::size_t>(ch)] = planar[ch] + seen;
      silenced_ += SilenceNonFinite(unseen_.data(), channels, got - seen);
      countedTo_ = std::max(countedTo_, position_ + got);
    }
    framesRead_ += got;
    position_ += got;
    return got;
  } catch (const std::exception& error) {
    error_ = error.what();
    return -1;
  }
}

bool FileSource::Seek(std::int64_t frame) {
  if (frame == position_) {
    return true;
  }
  if (!reader_.Seek(frame)) {
    return false;
  }
  position_ = frame;
  return true;
}

void FileSource::Check() const {
  if (!error_.empty()) {
    throw CliError(error_);
  }
}

void FileSource::WarnSilenced() const { WarnSilencedNonFinite(silenced_); }

std::int64_t SilenceNonFinite(float* const* planar, int numChannels, int numFrames) {
  std::int64_t count = 0;
  for (int ch = 0; ch < numChannels; ++ch) {
    const auto n = static_cast<std::size_t>(std::max(numFrames, 0));
    // Float samples summed in double cannot overflow: a non-finite sum
    // means a non-finite sample, and most blocks need no second look.
    if (std::isfinite(vexaccelerate::utility::Sum(n, planar[ch]))) {
      continue;
    }
    for (std::size_t i = 0; i < n; ++i) {
      if (!std::isfinite(planar[ch][i])) {
        planar[ch][i] = 0.0f;
        ++count;
      }
    }
  }
  return count;
}

void WarnSilencedNonFinite(std::int64_t count) {
  if (count > 0) {
    std::fprintf(stderr, "vexdsp: warning: %lld non-finite input samples (NaN or infinite) were taken as silence\n",
                 static_cast<long long>(count));
  }
}

bool FileSink::Write(const float* const* planar, int numFrames) {
  try {
    if (meter_ != nullptr) {
      meter_->Add(planar, numFrames);
    }
    writer_.Write(planar, numFrames);
    return true;
  } catch (const std::exception& error) {
    error_ = error.what();
    return false;
  }
}

void FileSink::Check() const {
  if (!error_.empty()) {
    throw CliError(error_);
  }
}

namespace {
// Three slots of 64k frames: a hand-over every 1.4 s of 48 kHz audio, and
// room to ride out a slow write.
constexpr std::size_t kSlots = 3;
constexpr int kSlotFrames = PlanarSlot::kFrames;
}  // namespace

BackgroundFileSource::BackgroundFileSource(FileSource& source, int numChannels)
    : source_(source), numChannels_(std::max(numChannels, 1)), slots_(kSlots, PlanarSlot(numChannels_)) {
  thread_ = std::thread([this] { Run(); });
}

BackgroundFileSource::~BackgroundFileSource() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void BackgroundFileSource::Run() {
  std::vector<float*> planar(static_cast<std::size_t>(numChannels_));
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return queued_ < slots_.size() || stopping_; });
    if (stopping_) {
      return;
    }
    PlanarSlot& slot = slots_[(first_ + queued_) % slots_.size()];
    lock.unlock();
    for (std::size_t ch = 0; ch < planar.size(); ++ch) {
      planar[ch] = slot.Channel(static_cast<int>(ch));
    }
    // Fill the slot unless the source ends or fails on the way.
    int got = 0;
    int read = 1;
    while (got < kSlotFrames && read > 0) {
      read = source_.Read(planar.data(), kSlotFrames - got);
      if (read > 0) {
        for (float*& p : planar) p += read;
        got += read;
      }
    }
    slot.numFrames = got > 0 ? got : read;
    lock.lock();
    ++queued_;
    changed_.notify_all();
    if (slot.numFrames <= 0) {
      return;
    }
    if (read <= 0) {
      // The end (or a failure) follows the frames of this slot.
      changed_.wait(lock, [this] { return queued_ < slots_.size() || stopping_; });
      if (stopping_) {
        return;
      }
      slots_[(first_ + queued_) % slots_.size()].numFrames = read;
      ++queued_;
      changed_.notify_all();
      return;
    }
  }
}

int BackgroundFileSource::Read(float* const* planar, int numFrames) {
  if (numFrames < 1) {
    return 0;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return queued_ > 0; });
  const PlanarSlot& slot = slots_[first_];
  if (slot.numFrames <= 0) {
    return slot.numFrames;  // stays queued: every later call says the same
  }
  lock.unlock();
  const int take = std::min(numFrames, slot.numFrames - position_);
  for (int ch = 0; ch < numChannels_; ++ch) {
    const float* from = slot.Channel(ch) + position_;
    vexaccelerate::utility::Copy(static_cast<std::size_t>(take), from, planar[ch]);
  }
  position_ += take;
  if (position_ == slot.numFrames) {
    lock.lock();
    position_ = 0;
    first_ = (first_ + 1) % slots_.size();
    --queued_;
    lock.unlock();
    changed_.notify_all();
  }
  return take;
}

BackgroundFileSink::BackgroundFileSink(FileSink& sink, int numChannels)
    : sink_(sink), numChannels_(std::max(numChannels, 1)), slots_(kSlots, PlanarSlot(numChannels_)) {
  thread_ = std::thread([this] { Run(); });
}

BackgroundFileSink::~BackgroundFileSink() { Finish(); }

bool BackgroundFileSink::Write(const float* const* planar, int numFrames) {
  int done = 0;
  while (done < numFrames) {
    if (filling_ == nullptr) {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [this] { return queued_ < slots_.size() || failed_; });
      if (failed_ || finishing_) {
        return false;
      }
      filling_ = &slots_[next_];
      filling_->numFrames = 0;
    }
    const int take = std::min(numFrames - done, kSlotFrames - filling_->numFrames);
    for (int ch = 0; ch < numChannels_; ++ch) {
      float* to = filling_->Channel(ch) + filling_->numFrames;
      vexaccelerate::utility::Copy(static_cast<std::size_t>(take), planar[ch] + done, to);
    }
    filling_->numFrames += take;
    done += take;
    if (filling_->numFrames == kSlotFrames) {
      Hand();
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  return !failed_;
}

void BackgroundFileSink::Hand() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    next_ = (next_ + 1) % slots_.size();
    ++queued_;
  }
  filling_ = nullptr;
  changed_.notify_all();
}

void BackgroundFileSink::Run() {
  std::vector<const float*> planar(static_cast<std::size_t>(numChannels_));
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return queued_ > 0 || finishing_; });
    if (queued_ == 0) {
      return;
    }
    PlanarSlot& slot = slots_[(next_ + slots_.size() - queued_) % slots_.size()];
    lock.unlock();
    for (std::size_t ch = 0; ch < planar.size(); ++ch) {
      planar[ch] = slot.Channel(static_cast<int>(ch));
    }
    const bool ok = sink_.Write(planar.data(), slot.numFrames);
    lock.lock();
    --queued_;
    failed_ = failed_ || !ok;
    changed_.notify_all();
  }
}

void BackgroundFileSink::Finish() {
  if (filling_ != nullptr && filling_->numFrames > 0) {
    Hand();
  }
  filling_ = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    finishing_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) {
    thread_.join();
  }
}

std::unique_ptr<dsp::host::EffectChain> ParseEffectChain(const std::vector<std::string>& texts) {
  auto chain = std::make_unique<dsp::host::EffectChain>();
  for (const std::string& text : texts) {
    std::string error;
    if (!chain->Add(text, &error)) {
      throw EffectTextError(error);
    }
  }
  return chain;
}

std::int64_t ParseTail(const std::string& text, const dsp::host::EffectChain& chain, double sampleRate) {
  if (text.empty()) {
    return 0;
  }
  if (text == "auto") {
    return chain.GetTailFrames();
  }
  double seconds = 0.0;
  if (!dsp::host::ParseDecimal(text, &seconds) || seconds < 0.0 || seconds > 3600.0) {
    throw UsageError("--tail " + text + " is not 'auto' or a number of seconds from 0 to 3600");
  }
  return std::llround(seconds * sampleRate);
}

std::string DescribeStream(int format, int numChannels, int sampleRate, std::int64_t frames) {
  return DescribeFormat(format) + ", " + std::to_string(numChannels) + " ch, " + std::to_string(sampleRate) + " Hz, " +
         (frames < 0 ? std::string("length unknown") : std::to_string(frames) + " frames");
}

}  // namespace vexdsp
