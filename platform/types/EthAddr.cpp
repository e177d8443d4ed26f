#include "platform/types/EthAddr.h"

#include <ostream>

#include "platform/types/Hash.h"

namespace Calyx {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

uint32_t EthAddr::hash(uint32_t seed) const {
  IncrementalHash h(seed);
  h.add(bytes.data(), bytes.size());
  return h.value();
}

String EthAddr::stringValue() const {
  static constexpr char kDigits[] = "0123456789abcdef";
  String s;
  s.reserve(17);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0) s += ':';
    s += kDigits[bytes[i] >> 4];
    s += kDigits[bytes[i] & 0xf];
  }
  return s;
}

std::optional<EthAddr> EthAddr::parse(std::string_view text, String* error) {
  EthAddr a;
  bool ok = text.size() == 17;
  for (size_t i = 0; ok && i < a.bytes.size(); ++i) {
    size_t at = 3 * i;
    int hi = hexDigit(text[at]);
    int lo = hexDigit(text[at + 1]);
    ok = hi >= 0 && lo >= 0 && (i == 5 || text[at + 2] == ':');
    if (ok) a.bytes[i] = uint8_t(hi << 4 | lo);
  }
  if (ok) return a;
  if (error) *error = "'" + String(text) + "' is not an Ethernet address of the form aa:bb:cc:dd:ee:ff";
  return std::nullopt;
}

std::ostream& operator<<(std::ostream& os, EthAddr const& a) {
  return os << a.stringValue();
}

}  // namespace Calyx
