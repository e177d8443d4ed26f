#pragma once
// Object: the base of every counted entity of the state framework.
//
// The count lives in the object (intrusive). On the single event thread it is a plain integer; built with
// CALYX_THREAD_SAFE_REFS it is atomic. An object is created only through make<T>(...) and dies only when its
// last Ptr goes away: make<T> refuses at compile time a class whose destructor is public, so a counted object
// cannot also live on the stack or in a container.
//
// A new object starts with a count of one, the reference its creator holds: make<T> adopts it. So a
// constructor that hands a Ptr to itself to someone else (a state machine wiring itself to a reactor or a
// sub-machine while it is being built) never sees the count fall to zero when that Ptr goes, and the
// half-built object is not freed under it.

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
  mutable std::atomic<uint32_t> refs_{1};
#else
  mutable uint32_t refs_ = 1;
#endif
};

}  // namespace Calyx
