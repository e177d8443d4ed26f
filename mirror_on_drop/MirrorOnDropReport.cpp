#include "mirror_on_drop/MirrorOnDropReport.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "mirror_on_drop/MirrorOnDropValueText.h"

namespace MirrorOnDrop::Report {

using Detail::ValueTextReader;
using Detail::ValueTextWriter;

namespace {

// Parses a nested value, reporting a failure inside it under the enclosing attribute's name.
template <class T>
T nested(std::string_view text, std::string_view name) {
  try {
    return T(text);
  } catch (std::range_error const&) {
    ValueTextReader::fail(name);
  }
}

}  // namespace

EntryStatus::EntryStatus(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Report::EntryStatus", "key");
  key_ = nested<Key>(r.field("key"), "key");
  try {
    type_ = reportTypeFromString(r.field("type"));
  } catch (std::range_error const&) {
    ValueTextReader::fail("type");
  }
  report_ = nested<Report>(r.field("report"), "report");
  r.end("report");
}

std::string EntryStatus::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Report::EntryStatus")
      .field("key", key_)
      .field("type", type_)
      .field("report", report_)
      .str();
}

namespace Interface {

Entry::Entry(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Report::Interface::Entry", "key");
  std::string_view const key = r.field("key");
  ValueTextReader k(key, "MirrorOnDrop::Report::Interface::Key", "key");
  std::string_view const intf = k.field("intfId");
  auto id = intf.empty() ? std::optional<IntfId>(IntfId()) : IntfId::parse(intf);
  if (!id) ValueTextReader::fail("key");
  key_ = Key(*id);
  countReport_ = r.number<uint16_t>("countReport");
  r.end("countReport");
}

std::ostream& operator<<(std::ostream& os, Key const& v) {
  return os << ValueTextWriter("MirrorOnDrop::Report::Interface::Key").field("intfId", v.intfId()).str();
}
std::ostream& operator<<(std::ostream& os, Entry const& v) {
  return os << v.valueToStrep();
}

std::string Entry::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Report::Interface::Entry")
      .field("key", key_)
      .field("countReport", countReport_)
      .str();
}

}  // namespace Interface

Status::Status(std::string name)
    : name_(std::move(name)),
      entry_(Calyx::make<EntryTable>(name_ + ".entry", Detail::sharedTableOptions())),
      entryIntf_(Calyx::make<EntryIntfTable>(name_ + ".entryIntf", Detail::sharedTableOptions())) {}

Ptr<Status> statusFactory(std::string const& name) {
  return Calyx::make<Status>(name);
}

bool EntryStatus::sound(std::string& problem) const {
  if (report_.dataSize() > Constant::packetSampleSize()) {
    problem = "report data size " + std::to_string(report_.dataSize()) + " exceeds the sample size " +
              std::to_string(Constant::packetSampleSize());
    return false;
  }
  if (type_ != ReportType::START && type_ != ReportType::STOP) {
    problem = "report type " + std::to_string(static_cast<unsigned>(type_)) + " is neither START nor STOP";
    return false;
  }
  return true;
}

void EntryOutbox::entryIs(Key const& k) {
  if (!keys_.insert(k)) return;
  if (notificationActive_) notify(&Reactor::handleEntry, k);
}

void EntryOutbox::entryDel(Key const& k) {
  if (!keys_.erase(k)) return;
  if (notificationActive_) notify(&Reactor::handleEntry, k);
}

void EntryOutbox::entryDelAll() {
  while (!keys_.empty()) entryDel(Key(keys_.front()));
}

void Outbox::headIndexUpdate() {
  headIndex_ = elements_.empty() ? nextIndex_ : elements_.front().index;
}

Outbox::Elements::iterator Outbox::find(uint32_t index) {
  return std::find_if(elements_.begin(), elements_.end(), [&](Element const& e) { return e.index == index; });
}

Outbox::Elements::const_iterator Outbox::find(uint32_t index) const {
  return std::find_if(elements_.begin(), elements_.end(), [&](Element const& e) { return e.index == index; });
}

void Outbox::entryEnq(Ptr<EntryOutbox> const& batch) {
  uint32_t index = nextIndex_;
  if (!elements_.empty()) {
    uint32_t const afterTail = elements_.back().index + 1;
    if (indexAfter(afterTail, index)) index = afterTail;
  }
  nextIndex_ = index;
  elements_.push_back({index, batch});
  headIndexUpdate();
}

Ptr<EntryOutbox> Outbox::entryDeq() {
  if (elements_.empty()) return nullptr;
  Ptr<EntryOutbox> head = std::move(elements_.front().batch);
  elements_.pop_front();
  ++dequeued_;
  headIndexUpdate();
  return head;
}

Ptr<EntryOutbox> Outbox::entryFront() const {
  return elements_.empty() ? nullptr : elements_.front().batch;
}
Ptr<EntryOutbox> Outbox::entryBack() const {
  return elements_.empty() ? nullptr : elements_.back().batch;
}

void Outbox::entryIs(uint32_t index, Ptr<EntryOutbox> const& batch) {
  if (!batch) {
    entryDel(index);
    return;
  }
  if (auto it = find(index); it != elements_.end()) {
    it->batch = batch;
    return;
  }
  auto const later = std::find_if(elements_.begin(), elements_.end(),
                                  [&](Element const& e) { return indexAfter(e.index, index); });
  elements_.insert(later, {index, batch});
  headIndexUpdate();
}

void Outbox::entryDel(uint32_t index) {
  if (auto it = find(index); it != elements_.end()) elements_.erase(it);
  headIndexUpdate();
}

void Outbox::entryDelAll() {
  elements_.clear();
  headIndexUpdate();
}

Ptr<EntryOutbox> Outbox::entry(uint32_t index) const {
  auto it = find(index);
  return it == elements_.end() ? nullptr : it->batch;
}

std::ostream& operator<<(std::ostream& os, Key const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, EntryStatus const& v) {
  return os << v.valueToStrep();
}

}  // namespace MirrorOnDrop::Report
