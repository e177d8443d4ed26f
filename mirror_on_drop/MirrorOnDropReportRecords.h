#pragma once
// The report table's records, as other processes read them from shared memory: "entry" holds one
// EntryStatus per reported flow (what its START report said), "entryIntf" one Interface::Entry per interface
// (how many reported flows were first seen there). Each record states its size and carries its layout version
// (bump it for a change that keeps the size), both folded into the plug-in's version.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "mirror_on_drop/MirrorOnDropType.h"
#include "mirror_on_drop/MirrorOnDropTypeCommon.h"
#include "platform/types/IntfId.h"

namespace MirrorOnDrop::Report {

using Calyx::IntfId;

// The flow's five-tuple: a flow key under its own type name.
class Key : public FlowKey {
 public:
  static constexpr uint32_t kLayoutVersion = 1;
  Key() = default;
  explicit Key(FlowKey const& flow) : FlowKey(flow) {}
  Key(uint8_t ipProto, IpGenAddr srcIp, IpGenAddr dstIp, uint16_t srcPort, uint16_t dstPort)
      : FlowKey(ipProto, srcIp, dstIp, srcPort, dstPort) {}
  explicit Key(std::string_view text) : FlowKey(text, "MirrorOnDrop::Report::Key") {}
  std::string valueToStrep() const { return strep("MirrorOnDrop::Report::Key"); }
};

class Entry {
 public:
  Entry() = default;
  explicit Entry(Key const& key) : key_(key) {}
  Key const& key() const { return key_; }
  bool operator==(Entry const& o) const { return key_ == o.key_; }

 protected:
  Key key_;
};

class EntryStatus : public Entry {
 public:
  static constexpr uint32_t kLayoutVersion = 1;
  EntryStatus() = default;
  EntryStatus(Key const& key, ReportType type, Report const& report)
      : Entry(key), type_(type), report_(report) {}
  explicit EntryStatus(std::string_view text);
  ReportType type() const { return type_; }
  Report const& report() const { return report_; }
  void typeIs(ReportType t) { type_ = t; }
  void reportIs(Report const& r) { report_ = r; }
  bool operator==(EntryStatus const& o) const {
    return key_ == o.key_ && type_ == o.type_ && report_ == o.report_;
  }
  std::string valueToStrep() const;
  // The table checks every entry it reads back: the sender copies 25 + dataSize bytes of the report, so a
  // size above the sample (left by an earlier run, or damaged) must never reach it.
  bool sound(std::string& problem) const;

 private:
  ReportType type_ = ReportType::START;
  Report report_;
};

namespace Interface {

class Key {
 public:
  static constexpr uint32_t kLayoutVersion = 1;
  Key() = default;
  explicit Key(IntfId const& intfId) : intfId_(intfId) {}
  IntfId const& intfId() const { return intfId_; }
  friend auto operator<=>(Key const&, Key const&) = default;
  uint32_t hash() const { return intfId_.hash(); }

 private:
  IntfId intfId_;
};

class Entry {
 public:
  static constexpr uint32_t kLayoutVersion = 1;
  Entry() = default;
  Entry(Key const& key, uint16_t countReport) : key_(key), countReport_(countReport) {}
  explicit Entry(std::string_view text);
  Key const& key() const { return key_; }
  uint16_t countReport() const { return countReport_; }
  void countReportIs(uint16_t n) { countReport_ = n; }
  // Empty (false) only with no interface and a zero count.
  explicit operator bool() const { return !key_.intfId().empty() || countReport_ != 0; }
  bool operator==(Entry const& o) const { return key_ == o.key_ && countReport_ == o.countReport_; }
  std::string valueToStrep() const;

 private:
  Key key_;
  uint16_t countReport_ = 0;  // 16 bits: a 65,536th flow on one interface wraps it
};

std::ostream& operator<<(std::ostream& os, Key const& v);
std::ostream& operator<<(std::ostream& os, Entry const& v);

// As the shared table lays them out (a change of size is a change of the plug-in's version).
static_assert(sizeof(Key) == 32 && alignof(Key) == 1);
static_assert(sizeof(Entry) == 34 && alignof(Entry) == 2);

}  // namespace Interface

static_assert(sizeof(Key) == 40 && alignof(Key) == 2);
static_assert(sizeof(EntryStatus) == 146 && alignof(EntryStatus) == 2);

std::ostream& operator<<(std::ostream& os, Key const& v);
std::ostream& operator<<(std::ostream& os, EntryStatus const& v);

}  // namespace MirrorOnDrop::Report

template <>
struct std::hash<MirrorOnDrop::Report::Key> {
  size_t operator()(MirrorOnDrop::Report::Key const& k) const noexcept { return k.hash(); }
};
template <>
struct std::hash<MirrorOnDrop::Report::Interface::Key> {
  size_t operator()(MirrorOnDrop::Report::Interface::Key const& k) const noexcept { return k.hash(); }
};
