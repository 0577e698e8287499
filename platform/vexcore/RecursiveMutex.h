#pragma once

#include <atomic>
#include <mutex>
#include <thread>

#include "vexcore/Export.h"

namespace vexcore {
namespace threads {

/// A recursive mutex that remembers the label of the scope holding it, so a
/// dead-lock seen in a debugger names its owner. The owning thread may lock it
/// again any number of times; it is free once every Lock (or successful
/// TryLock) has been matched by an Unlock. Labels are not copied: pass string
/// literals. Never used on an audio path.
class VEX_API RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  /// Blocks until the calling thread holds the mutex.
  void Lock(const char* label);
  /// Drops one level of ownership. A call from a thread that does not hold
  /// the mutex is ignored.
  void Unlock() noexcept;
  /// Takes the mutex if it is free or already held by the calling thread.
  bool TryLock(const char* label);
  /// Label of the outermost current holder, or null when free. Meant for
  /// diagnostics: the value may change as soon as it is read.
  const char* GetOwnerLabel() const noexcept;
  /// How many times the calling thread holds the mutex (0 when it does not).
  int GetLockDepth() const noexcept;

 private:
  void Acquired(const char* label) noexcept;

  std::recursive_mutex mutex_;
  // Read without the lock by diagnostics and by the ownership check of
  // Unlock, hence atomic; written only by the holder.
  std::atomic<const char*> ownerLabel_{nullptr};
  std::atomic<std::thread::id> owner_{std::thread::id()};
  int depth_ = 0;
};

/// Holds a RecursiveMutex for the life of the scope.
class VEX_API RecursiveMutexLock {
 public:
  RecursiveMutexLock(RecursiveMutex& mutex, const char* label) : mutex_(mutex) { mutex_.Lock(label); }
  ~RecursiveMutexLock() { mutex_.Unlock(); }
  RecursiveMutexLock(const RecursiveMutexLock&) = delete;
  RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

 private:
  RecursiveMutex& mutex_;
};

}  // namespace threads
}  // namespace vexcore
