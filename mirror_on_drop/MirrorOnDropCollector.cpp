#include "mirror_on_drop/MirrorOnDropCollector.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "mirror_on_drop/MirrorOnDropTypeCommon.h"
#include "mirror_on_drop/MirrorOnDropValueText.h"
#include "platform/core/Assert.h"
#include "platform/types/Hash.h"

namespace MirrorOnDrop::Collector {

using MirrorOnDrop::Detail::ValueTextReader;
using MirrorOnDrop::Detail::ValueTextWriter;

namespace Detail {

StringIndex::StringIndex(std::string_view text) {
  long v = 0;
  bool ok = !text.empty();
  try {
    size_t used = 0;
    v = std::stol(std::string(text), &used);
    ok = ok && used == text.size();
  } catch (std::exception const&) {
    ok = false;
  }
  if (!ok || v < min() || v > max()) {
    throw std::range_error(
        "MirrorOnDrop::Collector::Detail::StringIndex::value < "
        "MirrorOnDrop::Collector::Detail::StringIndex::min or > "
        "MirrorOnDrop::Collector::Detail::StringIndex::max not allowed");
  }
  value_ = static_cast<int8_t>(v);
}

std::ostream& operator<<(std::ostream& os, StringIndex const& v) {
  return os << v.valueToStrep();
}

}  // namespace Detail

namespace {

void store(Detail::NameStorage& storage, String const& name) {
  size_t const sz = name.size();
  CALYX_ASSERT(sz <= Detail::StringIndex::max() + 1, "sz <= Detail::StringIndex::max() + 1");
  std::memset(storage.bytes, 0, sizeof storage.bytes);
  std::memcpy(storage.bytes, name.data(), sz);
  storage.length = static_cast<uint32_t>(sz);
}

void shorten(Detail::NameStorage& storage, size_t length) {
  if (length >= storage.length) return;
  std::memset(storage.bytes + length, 0, sizeof storage.bytes - length);
  storage.length = static_cast<uint32_t>(length);
}

[[noreturn]] __attribute__((cold, noinline)) void oversizedStorage(Detail::NameStorage const& storage) {
  std::string dump;
  char hex[4];
  for (unsigned char c : storage.bytes) {
    std::snprintf(hex, sizeof hex, "%02x", c);
    dump += hex;
  }
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<void const*>(storage.bytes));
  throw std::length_error("expected size <= " + std::to_string(Detail::NameStorage::kCapacity) +
                          ", instead got " + std::to_string(storage.length) +
                          ". Buffer is at address: " + address + " with contents: " + dump);
}

// The stored name; a length beyond the storage (a damaged shared slot) is reported, never read.
inline std::string_view view(Detail::NameStorage const& storage) {
  if (storage.length > Detail::NameStorage::kCapacity) oversizedStorage(storage);
  return std::string_view(storage.bytes, storage.length);
}

// Jenkins' one-at-a-time hash over the given bytes, from 0.
uint32_t oneAtATime(uint8_t const* bytes, size_t n) {
  uint32_t h = 0;
  for (size_t i = 0; i < n; ++i) {
    h += bytes[i];
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

}  // namespace

Key::Key(String const& exporter, String const& collector) {
  exporterIs(exporter);
  collectorIs(collector);
}

Key::Key(std::string_view) {
  CALYX_ASSERT(false, "!\"No String constructor for Key - has collection\"");
}

void Key::exporterIs(String const& name) {
  store(exporterStorage_, name);
}
void Key::collectorIs(String const& name) {
  store(collectorStorage_, name);
}
void Key::exporterStorageDel(Detail::StringIndex index) {
  shorten(exporterStorage_, size_t(index.value()));
}
void Key::collectorStorageDel(Detail::StringIndex index) {
  shorten(collectorStorage_, size_t(index.value()));
}
void Key::exporterStorageDelAll() {
  shorten(exporterStorage_, 0);
}
void Key::collectorStorageDelAll() {
  shorten(collectorStorage_, 0);
}
String Key::exporter() const {
  return String(view(exporterStorage_));
}
String Key::collector() const {
  return String(view(collectorStorage_));
}

bool Key::operator==(Key const& o) const {
  return view(exporterStorage_) == view(o.exporterStorage_) &&
         view(collectorStorage_) == view(o.collectorStorage_);
}

bool Key::operator<(Key const& o) const {
  auto const a = view(exporterStorage_), b = view(o.exporterStorage_);
  if (a != b) return a < b;
  return view(collectorStorage_) < view(o.collectorStorage_);
}

uint32_t Key::hash() const {
  // The two string hashes' bytes, lowest-addressed first.
  uint32_t const parts[2] = {Calyx::stringHash(view(exporterStorage_)),
                             Calyx::stringHash(view(collectorStorage_))};
  uint8_t bytes[8];
  std::memcpy(bytes, parts, sizeof bytes);
  return oneAtATime(bytes, sizeof bytes);
}

std::string Key::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Collector::Key")
      .field("exporterStorage", exporter())
      .field("collectorStorage", collector())
      .str();
}

EntryStatus::EntryStatus(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Collector::EntryStatus", "key");
  key_ = Key(r.field("key"));
  bytes_ = r.number<uint64_t>("bytes");
  start_ = r.number<uint64_t>("start");
  stop_ = r.number<uint64_t>("stop");
  r.end("stop");
}

std::string EntryStatus::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Collector::EntryStatus")
      .field("key", key_)
      .field("bytes", bytes_)
      .field("start", start_)
      .field("stop", stop_)
      .str();
}

Calyx::Ptr<Status> statusFactory(std::string const& name) {
  return Calyx::make<Status>(name, MirrorOnDrop::Detail::sharedTableOptions());
}

std::ostream& operator<<(std::ostream& os, Key const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, EntryStatus const& v) {
  return os << v.valueToStrep();
}

}  // namespace MirrorOnDrop::Collector
