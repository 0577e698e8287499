#pragma once

#include <atomic>
#include <boost/intrusive_ptr.hpp>

#include "vexcore/Export.h"

namespace vexcore {
namespace utility {

/// Interface of an object that owns its own reference count. Used as a
/// virtual base so that a class reachable through several interfaces has one
/// count. An object starts with a count of 0; the first RefPtr takes it to 1.
class VEX_API RefCountedInterface {
 public:
  virtual void AddRef() const noexcept = 0;
  /// Drops one reference and deletes the object when it was the last.
  virtual void Release() const noexcept = 0;
  virtual int GetRefCount() const noexcept = 0;

 protected:
  virtual ~RefCountedInterface() = default;
};

/// The standard implementation: an atomic count, deletion through the virtual
/// destructor. Copying an object does not copy its count.
class VEX_API RefCountedObject : public virtual RefCountedInterface {
 public:
  void AddRef() const noexcept override;
  void Release() const noexcept override;
  int GetRefCount() const noexcept override;

 protected:
  RefCountedObject() noexcept = default;
  RefCountedObject(const RefCountedObject&) noexcept : RefCountedInterface() {}
  RefCountedObject& operator=(const RefCountedObject&) noexcept { return *this; }
  ~RefCountedObject() override = default;

 private:
  mutable std::atomic<int> refCount_{0};
};

inline void intrusive_ptr_add_ref(const RefCountedInterface* p) noexcept { p->AddRef(); }
inline void intrusive_ptr_release(const RefCountedInterface* p) noexcept { p->Release(); }

/// The intrusive smart pointer for reference-counted objects.
template <typename T>
using RefPtr = boost::intrusive_ptr<T>;

template <typename T, typename... Args>
RefPtr<T> MakeRef(Args&&... args) {
  return RefPtr<T>(new T(static_cast<Args&&>(args)...));
}

}  // namespace utility
}  // namespace vexcore
