#pragma once
// Ptr<T>: a counted reference to an Object. Ptr<T const> is what a state machine holds for what it only
// reads.

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "platform/core/Object.h"

namespace Calyx {

template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  // Counts up: p is already owned by someone (an object starts with its creator's reference).
  explicit Ptr(T* p) noexcept : p_(p) { acquire(); }
  // Takes over the creator's reference of a freshly made object without counting up. make<T> is the one
  // caller; a class with a protected constructor and a factory of its own uses it too.
  static Ptr adopt(T* p) noexcept {
    Ptr ptr;
    ptr.p_ = p;
    return ptr;
  }
  Ptr(Ptr const& o) noexcept : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> const& o) noexcept : p_(o.get()) {
    acquire();
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() { reset(); }

  // The new referent is counted up before the old one is counted down, so assigning a reference to itself, or
  // to an object the old referent owns, is safe.
  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  void reset() noexcept {
    if (T* p = std::exchange(p_, nullptr)) p->deref();
  }
  // Hands the reference to the caller without counting down.
  T* release() noexcept { return std::exchange(p_, nullptr); }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  template <class U>
  bool operator==(Ptr<U> const& o) const noexcept {
    return p_ == o.get();
  }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }

 private:
  void acquire() noexcept {
    if (p_) p_->ref();
  }
  T* p_ = nullptr;
};

// The one way to create a counted object. Derived classes keep their constructors public or befriend make,
// and their destructors protected: an object on the stack, in a container or deleted by hand would die
// behind the backs of the Ptrs that hold it.
template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  static_assert(!std::is_destructible_v<T>,
                "make<T>: T's destructor must be protected (a counted object dies with its last Ptr)");
  return Ptr<T>::adopt(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> ptrCast(Ptr<U> const& p) {
  return Ptr<T>(static_cast<T*>(p.get()));
}

}  // namespace Calyx

template <class T>
struct std::hash<Calyx::Ptr<T>> {
  size_t operator()(Calyx::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.get()); }
};
