#pragma once
// Object: the base of every counted entity of the state framework.
//
// The count lives in the object (intrusive). On the single event thread it is a plain integer; built with
// CALYX_THREAD_SAFE_REFS it is atomic. Destructors of derived classes are protected: an object dies only when
// its last Ptr goes away, and it is created only through make<T>(...).

#include <cstdint>
#if CALYX_THREAD_SAFE_REFS
#include <atomic>
#endif

namespace Calyx {

class Object {
 public:
  Object(Object const&) = delete;
  Object& operator=(Object const&) = delete;

  void ref() const noexcept { ++refs_; }
  void deref() const noexcept {
    if (--refs_ == 0) delete this;
  }
  uint32_t refCount() const noexcept { return refs_; }

 protected:
  Object() = default;
  virtual ~Object() = default;

 private:
#if CALYX_THREAD_SAFE_REFS
  mutable std::atomic<uint32_t> refs_{0};
#else
  mutable uint32_t refs_ = 0;
#endif
};

}  // namespace Calyx
