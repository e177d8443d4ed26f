#pragma once
// Per-flow report state. Report::Status is a pair of shared tables written by the dispatcher and read by the
// sender: "entry" holds one entry per reported flow (what its START report said), "entryIntf" one counter per
// interface (how many reported flows were first seen there). EntryOutbox (a batch: a set of flow keys) and
// Outbox (a first-in first-out queue of batches) are the in-process queues through which the dispatcher hands
// flows to the sender.

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "mirror_on_drop/MirrorOnDropReportRecords.h"
#include "platform/core/Entity.h"
#include "platform/core/FlatSet.h"
#include "platform/shm/SharedTable.h"
#include "platform/types/IntfId.h"

namespace MirrorOnDrop::Report {

using Calyx::Ptr;

// The two shared tables: "entry" (per flow) and "entryIntf" (per interface), published as <name>.entry and
// <name>.entryIntf in the state directory.
class Status : public Calyx::Object {
 public:
  using EntryTable = Calyx::SharedTable<Key, EntryStatus>;
  using EntryIntfTable = Calyx::SharedTable<Interface::Key, Interface::Entry>;

  explicit Status(std::string name);

  std::string const& name() const { return name_; }
  Ptr<EntryTable> const& entryControl() const { return entry_; }
  Ptr<EntryIntfTable> const& entryIntfControl() const { return entryIntf_; }

  bool entryIs(EntryStatus const& e) { return entry_->entryIs(e); }
  bool entryDel(Key const& k) { return entry_->entryDel(k); }
  void entryCommit(EntryStatus const& e) { entry_->entryCommit(e); }
  void entryDelAll() { entry_->entryDelAll(); }
  EntryStatus const* entry(Key const& k) const { return entry_->entry(k); }
  size_t entryCount() const { return entry_->entryCount(); }
  // Room for n more entries, growing the table now if need be; false when it cannot grow.
  bool entryReserve(size_t n) { return entry_->entryReserve(n); }

  bool entryIntfIs(Interface::Entry const& e) { return entryIntf_->entryIs(e); }
  // Find-or-create for in-place change: the interface's counter (countReport 0 when it has none) is changed
  // by change(Interface::Entry&), then committed.
  template <class F>
  void entryIntfUpdate(Interface::Key const& k, F&& change) {
    entryIntf_->entryUpdate(k, std::forward<F>(change), [&] { return Interface::Entry(k, 0); });
  }
  bool entryIntfDel(Interface::Key const& k) { return entryIntf_->entryDel(k); }
  void entryIntfCommit(Interface::Entry const& e) { entryIntf_->entryCommit(e); }
  void entryIntfDelAll() { entryIntf_->entryDelAll(); }
  Interface::Entry const* entryIntf(Interface::Key const& k) const { return entryIntf_->entry(k); }
  size_t entryIntfCount() const { return entryIntf_->entryCount(); }
  bool entryIntfReserve(size_t n) { return entryIntf_->entryReserve(n); }
  // Walk in interface order; a walk survives changes made during it.
  std::optional<Interface::Key> entryIntfFirst() const { return entryIntf_->entryFirst(); }
  std::optional<Interface::Key> entryIntfNext(Interface::Key const& after) const {
    return entryIntf_->entryNext(after);
  }

 private:
  std::string name_;
  Ptr<EntryTable> entry_;
  Ptr<EntryIntfTable> entryIntf_;

 protected:
  ~Status() override = default;
};

Ptr<Status> statusFactory(std::string const& name);

// A batch of flows: a set of keys, no order the program relies on, no duplicates.
class EntryOutbox : public Calyx::Object, public Calyx::Notifier<EntryOutbox> {
 public:
  class Reactor : public Calyx::ReactorBase<EntryOutbox> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleEntry(Key const&) {}
  };
  // Open addressing in one array: a storm's batch holds a million keys, added one by one and then given back
  // one by one, taking the front each time. The batch lives in this process only, so it hashes a key the
  // fast way rather than the stable way the shared tables need.
  struct KeyHash {
    size_t operator()(Key const& k) const { return k.wideHash(0); }
  };
  using Set = Calyx::FlatSet<Key, KeyHash>;

  EntryOutbox() = default;
  void entryIs(Key const& k);
  void entryDel(Key const& k);
  void entryDelAll();
  bool entry(Key const& k) const { return keys_.contains(k); }
  size_t count() const { return keys_.size(); }
  bool empty() const { return keys_.empty(); }
  // A member, in O(1) however many were removed before it; the batch must not be empty.
  Key const& front() const { return keys_.front(); }
  Set::const_iterator begin() const { return keys_.begin(); }
  Set::const_iterator end() const { return keys_.end(); }

  bool hasNotificationActive() const { return notificationActive_; }
  void hasNotificationActiveIs(bool on) { notificationActive_ = on; }

 private:
  Set keys_;
  bool notificationActive_ = true;

 protected:
  ~EntryOutbox() override = default;
};

// A first-in first-out queue of batches. Each element has a sequence index; enqueueing gives the new element
// the larger of the queue's next index and the tail's index plus one, and sets the next index to it. Indexes
// are 32 bits and wrap: "larger" is decided in sequence-number arithmetic (the later of two indexes less than
// 2^31 apart), and the queue keeps its elements in arrival order, so the element after index 0xFFFFFFFF gets
// index 0 and goes behind it.
class Outbox : public Calyx::Object {
 public:
  Outbox() = default;

  void entryEnq(Ptr<EntryOutbox> const& batch);
  // The head batch, taken off the queue; null when the queue is empty.
  Ptr<EntryOutbox> entryDeq();
  Ptr<EntryOutbox> entryFront() const;
  Ptr<EntryOutbox> entryBack() const;
  // Sets the batch of the element with that index (made in index order when absent); a null batch deletes the
  // element.
  void entryIs(uint32_t index, Ptr<EntryOutbox> const& batch);
  void entryDel(uint32_t index);
  void entryDelAll();
  Ptr<EntryOutbox> entry(uint32_t index) const;

  uint32_t headIndex() const { return headIndex_; }
  uint32_t nextIndex() const { return nextIndex_; }
  void nextIndexIs(uint32_t index) { nextIndex_ = index; }
  uint64_t dequeued() const { return dequeued_; }
  size_t size() const { return elements_.size(); }
  bool empty() const { return elements_.empty(); }

  // True when index a comes after index b in sequence order.
  static bool indexAfter(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b) > 0; }

 private:
  struct Element {
    uint32_t index;
    Ptr<EntryOutbox> batch;
  };
  using Elements = std::deque<Element>;

  void headIndexUpdate();
  Elements::iterator find(uint32_t index);
  Elements::const_iterator find(uint32_t index) const;

  Elements elements_;  // arrival order: the head is the first
  uint32_t headIndex_ = 0;
  uint32_t nextIndex_ = 0;
  uint64_t dequeued_ = 0;

 protected:
  ~Outbox() override = default;
};

}  // namespace MirrorOnDrop::Report
