#include "vexcore/RefCounted.h"

namespace vexcore {
namespace utility {

void RefCountedObject::AddRef() const noexcept { refCount_.fetch_add(1, std::memory_order_relaxed); }

void RefCountedObject::Release() const noexcept {
  // acq_rel: the deleting thread must see every write made by the threads
  // that dropped their references before it.
  if (refCount_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

int RefCountedObject::GetRefCount() const noexcept { return refCount_.load(std::memory_order_relaxed); }

}  // namespace utility
}  // namespace vexcore
