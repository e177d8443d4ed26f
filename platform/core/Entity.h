#pragma once
// The two halves of every notifying entity of the state framework.
//
//   class Widget : public Object, public Notifier<Widget> {
//    public:
//     class Reactor : public ReactorBase<Widget> {
//      public:
//       using ReactorBase::ReactorBase;
//       virtual void handleSize() {}
//     };
//     void sizeIs(int s) { if (s == size_) return; size_ = s; notify(&Reactor::handleSize); }
//   };
//
// A reactor attaches to its entity in its constructor and detaches in its destructor, so it hears nothing
// once it is being destroyed. Entities call their reactors synchronously, in attach order, inside the setter.
// The framework does not call handlers on attach: a state machine calls its reactors' handlers once, right
// after creating them.

#include <cstdint>
#include <utility>

#include "platform/core/Ptr.h"
#include "platform/core/ReactorList.h"

namespace Calyx {

template <class Entity>
class ReactorBase;
template <class E, class K, class V>
class Collection;

template <class Entity>
class Notifier {
 public:
  ReactorList<ReactorBase<Entity>>& reactorList() const { return reactors_; }

 protected:
  template <class, class, class>
  friend class Collection;

  // Stores v and notifies only when it differs from what was stored.
  template <class T, class Handler>
  void attributeIs(T& field, T const& v, Handler handler) {
    if (field == v) return;
    field = v;
    notify(handler);
  }
  // Adds n modulo 2^64, notifies only when the sum differs, and returns it.
  template <class Handler>
  uint64_t counterInc(uint64_t& field, uint64_t n, Handler handler) {
    if (n == 0) return field;
    field += n;
    notify(handler);
    return field;
  }

  // Calls (reactor.*handler)(args...) on every attached reactor.
  template <class Handler, class... Args>
  void notify(Handler handler, Args const&... args) const {
    reactors_.notify([&](ReactorBase<Entity>& r) {
      auto& reactor = static_cast<typename Entity::Reactor&>(r);
      (reactor.*handler)(args...);
    });
  }

 private:
  mutable ReactorList<ReactorBase<Entity>> reactors_;
};

template <class Entity>
class ReactorBase {
 public:
  explicit ReactorBase(Ptr<Entity const> notifier) : notifier_(std::move(notifier)) { attach(); }
  ReactorBase(ReactorBase const&) = delete;
  ReactorBase& operator=(ReactorBase const&) = delete;
  virtual ~ReactorBase() { detach(); }

  Entity const* notifier() const { return notifier_.get(); }
  // Moves the reactor to another entity (or to none).
  void notifierIs(Ptr<Entity const> notifier) {
    if (notifier == notifier_) return;
    detach();
    notifier_ = std::move(notifier);
    attach();
  }

 private:
  void attach() {
    if (notifier_) notifier_->reactorList().add(this);
  }
  void detach() {
    if (notifier_) notifier_->reactorList().remove(this);
  }
  Ptr<Entity const> notifier_;
};

}  // namespace Calyx
