#pragma once
// ReactorList<R>: the list of reactors an entity notifies, safe under re-entrancy.
//
// A handler may, while it is being notified:
// - remove itself or any other reactor: the slot is only cleared, and a cleared slot is never called; the
//   list compacts when the outermost notification ends;
// - add a reactor: it is not called by the notification under way (it hears the next one);
// - destroy the list's owner (and so the list): every notification under way notices through its frame and
//   returns without touching the list again.
// Notifications may nest (a handler changes another attribute of the same entity). Single-threaded by design.

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Calyx {

template <class R>
class ReactorList {
 public:
  ReactorList() = default;
  ReactorList(ReactorList const&) = delete;
  ReactorList& operator=(ReactorList const&) = delete;
  ~ReactorList() {
    for (Frame* f = frames_; f; f = f->outer) f->listGone = true;
  }

  void add(R* r) { items_.push_back(r); }

  void remove(R* r) {
    auto it = std::find(items_.begin(), items_.end(), r);
    if (it == items_.end()) return;
    if (frames_) {
      *it = nullptr;
      needsCompaction_ = true;
    } else {
      items_.erase(it);
    }
  }

  bool contains(R const* r) const { return std::find(items_.begin(), items_.end(), r) != items_.end(); }
  size_t size() const {
    return static_cast<size_t>(
        std::count_if(items_.begin(), items_.end(), [](R* r) { return r != nullptr; }));
  }
  bool empty() const { return size() == 0; }

  // Calls f(R&) for every reactor present when the notification starts, in attach order.
  template <class F>
  void notify(F&& f) {
    if (items_.empty()) return;
    Frame frame{this, frames_};
    frames_ = &frame;
    size_t const end = items_.size();
    for (size_t i = 0; i < end; ++i) {
      R* r = items_[i];
      if (!r) continue;
      f(*r);
      if (frame.listGone) return;  // the owner was destroyed by the handler; nothing here is ours any more
    }
  }

 private:
  // One per notification under way, on the notifier's stack. Popping it (also when a handler throws) ends the
  // notification; the outermost one compacts the list.
  struct Frame {
    ReactorList* list;
    Frame* outer;
    bool listGone = false;
    ~Frame() {
      if (listGone) return;
      list->frames_ = outer;
      if (!outer && list->needsCompaction_) list->compact();
    }
  };

  void compact() {
    items_.erase(std::remove(items_.begin(), items_.end(), nullptr), items_.end());
    needsCompaction_ = false;
  }

  std::vector<R*> items_;
  Frame* frames_ = nullptr;
  bool needsCompaction_ = false;
};

}  // namespace Calyx
