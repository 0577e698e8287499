#include "vexcore/RecursiveMutex.h"

namespace vexcore {
namespace threads {

void RecursiveMutex::Acquired(const char* label) noexcept {
  // Only the outermost acquisition names the owner: an inner scope of the
  // same thread does not hide who took the lock first.
  if (depth_++ == 0) {
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    ownerLabel_.store(label, std::memory_order_relaxed);
  }
}

void RecursiveMutex::Lock(const char* label) {
  mutex_.lock();
  Acquired(label);
}

bool RecursiveMutex::TryLock(const char* label) {
  if (!mutex_.try_lock()) return false;
  Acquired(label);
  return true;
}

void RecursiveMutex::Unlock() noexcept {
  // Unlocking a std::recursive_mutex the caller does not own is undefined;
  // the owner check turns that misuse into a no-op.
  if (owner_.load(std::memory_order_relaxed) != std::this_thread::get_id()) return;
  if (--depth_ == 0) {
    ownerLabel_.store(nullptr, std::memory_order_relaxed);
    owner_.store(std::thread::id(), std::memory_order_relaxed);
  }
  mutex_.unlock();
}

const char* RecursiveMutex::GetOwnerLabel() const noexcept { return ownerLabel_.load(std::memory_order_relaxed); }

int RecursiveMutex::GetLockDepth() const noexcept {
  // depth_ is only written by the holder, so it is safe to read once the
  // caller is known to be that holder.
  return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id() ? depth_ : 0;
}

}  // namespace threads
}  // namespace vexcore
