#include "mirror_on_drop/MirrorOnDropEmtCommon.h"

#include <cstring>
#include <ostream>

#include "mirror_on_drop/MirrorOnDropValueText.h"
#include "platform/types/Hash.h"

namespace MirrorOnDrop::Emt {

using Detail::ValueTextReader;
using Detail::ValueTextWriter;

namespace {

IntfId parseIntf(std::string_view text) {
  if (text.empty()) return IntfId();
  auto intf = IntfId::parse(text);
  if (!intf) ValueTextReader::fail("intfId");
  return *intf;
}

bool parseBool(std::string_view text, std::string_view name) {
  if (text == "True" || text == "TRUE" || text == "true") return true;
  if (text == "False" || text == "FALSE" || text == "false") return false;
  ValueTextReader::fail(name);
}

bool keySound(Key const& k, std::string& problem) {
  using Family = Calyx::IpGenAddr::Family;
  Family const af = k.srcIp().af();
  if ((af == Family::ipv4 || af == Family::ipv6) && k.dstIp().af() == af) return true;
  problem = "flow of source address family " + std::to_string(unsigned(af)) +
            " and destination address family " + std::to_string(unsigned(k.dstIp().af())) +
            " (expected both IPv4 or both IPv6)";
  return false;
}

}  // namespace

Key::Key(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Emt::Key", "ipProto");
  flow_ = FlowKey::fieldsRead(r);
  intfId_ = parseIntf(r.field("intfId"));
  r.end("intfId");
}

bool Key::operator<(Key const& o) const {
  if (flow_ < o.flow_) return true;
  if (o.flow_ < flow_) return false;
  return intfId_ < o.intfId_;
}

uint32_t Key::hash(uint32_t seed) const {
  // Every drop of a known flow looks its key up: the flow's and the interface's words are mixed by a few wide
  // multiplications side by side rather than fed one byte stream, whose chain was longer than the look-up.
  uint64_t const h = Calyx::wideMix(flow_.wideHash(seed), intfId_.wideHash(seed));
  return static_cast<uint32_t>(h ^ h >> 32);
}

std::string Key::valueToStrep() const {
  ValueTextWriter w("MirrorOnDrop::Emt::Key");
  flow_.fieldsWrite(w);
  return w.field("intfId", intfId_).str();
}

EntryStatus::EntryStatus(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Emt::EntryStatus", "key");
  std::string_view const key = r.field("key");
  try {
    key_ = Key(key);
  } catch (std::range_error const&) {
    ValueTextReader::fail("key");
  }
  isInstalled_ = parseBool(r.field("isInstalled"), "isInstalled");
  r.end("isInstalled");
}

bool EntryConfig::sound(std::string& problem) const {
  return keySound(key_, problem);
}

bool EntryStatus::sound(std::string& problem) const {
  if (!keySound(key_, problem)) return false;
  // The byte as stored: a bool holding anything but 0 or 1 may not even be read as one.
  unsigned char stored = 0;
  std::memcpy(&stored, &isInstalled_, 1);
  if (stored <= 1) return true;
  problem = "isInstalled byte " + std::to_string(stored) + " is neither 0 nor 1";
  return false;
}

std::string EntryStatus::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Emt::EntryStatus")
      .field("key", key_)
      .field("isInstalled", isInstalled_ ? "True" : "False")
      .str();
}

Calyx::Ptr<Config> configFactory(std::string const& name) {
  return Calyx::make<Config>(name, MirrorOnDrop::Detail::sharedTableOptions());
}
Calyx::Ptr<Status> statusFactory(std::string const& name) {
  return Calyx::make<Status>(name, MirrorOnDrop::Detail::sharedTableOptions());
}

std::ostream& operator<<(std::ostream& os, Key const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, EntryConfig const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, EntryStatus const& v) {
  return os << v.valueToStrep();
}

}  // namespace MirrorOnDrop::Emt
