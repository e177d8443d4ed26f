#pragma once
// The exact-match table records: the flows the feature wants matched exactly on the interface where their
// drops were seen (Emt::Config, written by the dispatcher) and whether the hardware has each in place
// (Emt::Status, written by the exact-match adapter). Both are shared tables keyed by Emt::Key.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "mirror_on_drop/MirrorOnDropTypeCommon.h"
#include "platform/core/Ptr.h"
#include "platform/shm/SharedTable.h"
#include "platform/types/IntfId.h"

namespace MirrorOnDrop::Emt {

using Calyx::IntfId;

// A flow key with the interface appended: laid out and compared as the flow key first, then the interface;
// hashed from the words of both (hash(), stable across processes and runs as the tables need).
class Key {
 public:
  Key() = default;
  Key(FlowKey const& flow, IntfId const& intfId) : flow_(flow), intfId_(intfId) {}
  Key(uint8_t ipProto, IpGenAddr srcIp, IpGenAddr dstIp, uint16_t srcPort, uint16_t dstPort,
      IntfId const& intfId)
      : flow_(ipProto, srcIp, dstIp, srcPort, dstPort), intfId_(intfId) {}
  explicit Key(std::string_view text);

  FlowKey const& flowKey() const { return flow_; }
  FlowKey& flowKey() { return flow_; }  // to fill in place
  uint8_t ipProto() const { return flow_.ipProto(); }
  IpGenAddr const& srcIp() const { return flow_.srcIp(); }
  IpGenAddr const& dstIp() const { return flow_.dstIp(); }
  uint16_t srcPort() const { return flow_.srcPort(); }
  uint16_t dstPort() const { return flow_.dstPort(); }
  IntfId const& intfId() const { return intfId_; }
  void intfIdIs(IntfId const& v) { intfId_ = v; }

  bool operator==(Key const& o) const { return flow_ == o.flow_ && intfId_ == o.intfId_; }
  bool operator<(Key const& o) const;
  uint32_t hash(uint32_t seed = 0) const;
  std::string valueToStrep() const;

 private:
  FlowKey flow_;
  IntfId intfId_;
};

// The row of Emt::Config; equality and text form are those of its key.
class EntryConfig {
 public:
  EntryConfig() = default;
  explicit EntryConfig(Key const& key) : key_(key) {}
  explicit EntryConfig(std::string_view text) : key_(text) {}
  Key const& key() const { return key_; }
  bool operator==(EntryConfig const& o) const { return key_ == o.key_; }
  std::string valueToStrep() const { return key_.valueToStrep(); }
  // Checked by the table on every row read back: a flow of one family, IPv4 or IPv6 (the exact-match tables
  // are per family), as the adapter requires.
  bool sound(std::string& problem) const;

 private:
  Key key_;
};
using Entry = EntryConfig;

// The row of Emt::Status.
class EntryStatus {
 public:
  EntryStatus() = default;
  EntryStatus(Key const& key, bool isInstalled) : key_(key), isInstalled_(isInstalled) {}
  explicit EntryStatus(std::string_view text);
  Key const& key() const { return key_; }
  bool isInstalled() const { return isInstalled_; }
  void isInstalledIs(bool v) { isInstalled_ = v; }
  bool operator==(EntryStatus const& o) const { return key_ == o.key_ && isInstalled_ == o.isInstalled_; }
  std::string valueToStrep() const;
  // As EntryConfig's, and isInstalled a true boolean.
  bool sound(std::string& problem) const;

 private:
  Key key_;
  bool isInstalled_ = false;
};

using Config = Calyx::SharedTable<Key, EntryConfig>;
using Status = Calyx::SharedTable<Key, EntryStatus>;

// Create the tables by name for the host's state store.
Calyx::Ptr<Config> configFactory(std::string const& name);
Calyx::Ptr<Status> statusFactory(std::string const& name);

std::ostream& operator<<(std::ostream& os, Key const& v);
std::ostream& operator<<(std::ostream& os, EntryConfig const& v);
std::ostream& operator<<(std::ostream& os, EntryStatus const& v);

}  // namespace MirrorOnDrop::Emt

template <>
struct std::hash<MirrorOnDrop::Emt::Key> {
  size_t operator()(MirrorOnDrop::Emt::Key const& k) const noexcept { return k.hash(); }
};
