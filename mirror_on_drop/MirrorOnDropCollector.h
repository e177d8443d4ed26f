#pragma once
// The collector status table: for every collector of every exporter the feature sends to, how many report
// bytes, START reports and STOP reports went out successfully. The sender is its only writer; show commands
// and other agents read it from shared memory. A key holds both names in fixed storage so that it can live in
// a shared-memory slot.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/Ptr.h"
#include "platform/shm/SharedTable.h"
#include "platform/types/String.h"

namespace MirrorOnDrop::Collector {

using Calyx::String;

namespace Detail {

// An index into a key's character storage.
class StringIndex {
 public:
  static constexpr int8_t min() { return 0; }
  static constexpr int8_t max() { return 127; }
  constexpr StringIndex() = default;
  constexpr explicit StringIndex(int8_t value) : value_(value) {}
  // Throws std::range_error for a value outside min..max.
  explicit StringIndex(std::string_view text);
  constexpr int8_t value() const { return value_; }
  std::string valueToStrep() const { return std::to_string(value_); }
  friend constexpr bool operator==(StringIndex, StringIndex) = default;

 private:
  int8_t value_ = 0;
};

// A name of at most 128 bytes, not terminated.
struct NameStorage {
  static constexpr size_t kCapacity = StringIndex::max() + 1;
  uint32_t length = 0;
  char bytes[kCapacity] = {};
};

std::ostream& operator<<(std::ostream& os, StringIndex const& v);

}  // namespace Detail

class Key {
 public:
  Key() = default;
  Key(String const& exporter, String const& collector);
  // A key holds collections and has no text constructor: calling this is a fatal assertion.
  explicit Key(std::string_view text);

  // Copy the name into the storage; a name longer than 128 bytes is a fatal assertion.
  void exporterIs(String const& name);
  void collectorIs(String const& name);
  // Shorten the storage to `index` characters, or clear it.
  void exporterStorageDel(Detail::StringIndex index);
  void collectorStorageDel(Detail::StringIndex index);
  void exporterStorageDelAll();
  void collectorStorageDelAll();

  // The names; a stored length beyond the storage (a damaged shared slot) throws std::length_error describing
  // the buffer.
  String exporter() const;
  String collector() const;

  explicit operator bool() const { return !(*this == Key()); }
  bool operator==(Key const& o) const;
  bool operator<(Key const& o) const;
  uint32_t hash() const;
  // The key as shared-table readers list it: the exporter name, a blank, the collector name.
  String sharedTableKeyString() const { return exporter() + " " + collector(); }
  std::string valueToStrep() const;

 private:
  Detail::NameStorage exporterStorage_;
  Detail::NameStorage collectorStorage_;
};

class EntryStatus {
 public:
  EntryStatus() = default;
  explicit EntryStatus(Key const& key) : key_(key) {}
  EntryStatus(Key const& key, uint64_t bytes, uint64_t start, uint64_t stop)
      : key_(key), bytes_(bytes), start_(start), stop_(stop) {}
  explicit EntryStatus(std::string_view text);

  Key const& key() const { return key_; }
  uint64_t bytes() const { return bytes_; }
  uint64_t start() const { return start_; }
  uint64_t stop() const { return stop_; }
  void bytesIs(uint64_t v) { bytes_ = v; }
  void startIs(uint64_t v) { start_ = v; }
  void stopIs(uint64_t v) { stop_ = v; }

  explicit operator bool() const { return !(*this == EntryStatus()); }
  bool operator==(EntryStatus const& o) const {
    return key_ == o.key_ && bytes_ == o.bytes_ && start_ == o.start_ && stop_ == o.stop_;
  }
  std::string valueToStrep() const;

 private:
  Key key_;
  uint64_t bytes_ = 0;
  uint64_t start_ = 0;
  uint64_t stop_ = 0;
};

using Status = Calyx::SharedTable<Key, EntryStatus>;

Calyx::Ptr<Status> statusFactory(std::string const& name);

std::ostream& operator<<(std::ostream& os, Key const& v);
std::ostream& operator<<(std::ostream& os, EntryStatus const& v);

// Every collector's counters, in key order: what a host reads for its statistics without compiling the
// table's key code itself.
struct Counters {
  String exporter;
  String collector;
  uint64_t bytes = 0;
  uint64_t start = 0;
  uint64_t stop = 0;
};
std::vector<Counters> countersRead(Status const& status);

}  // namespace MirrorOnDrop::Collector

template <>
struct std::hash<MirrorOnDrop::Collector::Key> {
  size_t operator()(MirrorOnDrop::Collector::Key const& k) const noexcept { return k.hash(); }
};
