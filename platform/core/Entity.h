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

#include <utility>

#include "platform/core/Ptr.h"
#include "platform/core/ReactorList.h"

namespace Calyx {

template <class Entity>
class ReactorBase;

template <class Entity>
class Notifier {
 public:
  ReactorList<ReactorBase<Entity>>& reactorList() const { return reactors_; }

 protected:
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
