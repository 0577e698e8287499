#include "vexaudiodsp/utils/FFTPool.h"

#include "vexaccelerate/Transform.h"

namespace dsp {

namespace vt = vexaccelerate::transform;

FFTPool::FFTPool(const std::string& name) : name_(name) {}

FFTPool::~FFTPool() { FreeAll(); }

FFTPool::FFTPool(const FFTPool& other) : name_(other.name_) {
  for (unsigned order = 0; order < kMaxOrders; ++order) {
    if (other.states_[order] != nullptr) AddOrder(order);
  }
}

FFTPool& FFTPool::operator=(const FFTPool& other) {
  if (&other == this) return *this;
  FreeAll();
  name_ = other.name_;
  buffer_.clear();
  bufferData_ = nullptr;
  for (unsigned order = 0; order < kMaxOrders; ++order) {
    if (other.states_[order] != nullptr) AddOrder(order);
  }
  return *this;
}

void FFTPool::FreeAll() {
  for (auto*& state : states_) {
    vt::FFTFree(state);
    state = nullptr;
  }
}

void FFTPool::AddOrder(unsigned order) {
  if (order >= kMaxOrders || states_[order] != nullptr) return;
  if (vt::FFTInit(&states_[order], static_cast<int>(order)) != 0) {
    states_[order] = nullptr;
    return;
  }
  int bytes = 0;
  vt::FFTGetBufSize(states_[order], &bytes);
  if (bytes > 0 && buffer_.size() < static_cast<std::size_t>(bytes)) buffer_.resize(static_cast<std::size_t>(bytes), 0);
  bufferData_ = buffer_.empty() ? nullptr : buffer_.data();
}

vexaccelerate::FFTState_Float* FFTPool::GetFFT(unsigned order) {
  if (order >= kMaxOrders) return nullptr;
  if (states_[order] == nullptr) AddOrder(order);
  return states_[order];
}

}  // namespace dsp
