#include "platform/types/IpGenAddr.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <ostream>

#include "platform/types/Hash.h"

namespace Calyx {

namespace {

// inet_pton wants a terminated string; anything longer than the longest IPv6 text cannot be an address.
bool textToBytes(int family, std::string_view text, void* out) {
  char buf[INET6_ADDRSTRLEN];
  if (text.size() >= sizeof(buf) || text.find('\0') != std::string_view::npos) return false;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  return inet_pton(family, buf, out) == 1;
}

String bytesToText(int family, void const* in) {
  char buf[INET6_ADDRSTRLEN];
  if (inet_ntop(family, in, buf, sizeof(buf)) == nullptr) return String();  // cannot happen with this buffer
  return String(buf);
}

template <class T>
std::optional<T> failParse(String* error, std::string_view text, char const* what) {
  if (error) *error = "'" + String(text) + "' is not " + what;
  return std::nullopt;
}

}  // namespace

uint32_t Ip4Addr::hash(uint32_t seed) const {
  IncrementalHash h(seed);
  h.add(bytes.data(), bytes.size());
  return h.value();
}

String Ip4Addr::stringValue() const {
  return bytesToText(AF_INET, bytes.data());
}

std::optional<Ip4Addr> Ip4Addr::parse(std::string_view text, String* error) {
  Ip4Addr a;
  if (!textToBytes(AF_INET, text, a.bytes.data())) return failParse<Ip4Addr>(error, text, "an IPv4 address");
  return a;
}

bool Ip6Addr::isZero() const {
  return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0; });
}

uint32_t Ip6Addr::hash(uint32_t seed) const {
  IncrementalHash h(seed);
  h.add(bytes.data(), bytes.size());
  return h.value();
}

String Ip6Addr::stringValue() const {
  return bytesToText(AF_INET6, bytes.data());
}

std::optional<Ip6Addr> Ip6Addr::parse(std::string_view text, String* error) {
  Ip6Addr a;
  if (!textToBytes(AF_INET6, text, a.bytes.data())) return failParse<Ip6Addr>(error, text, "an IPv6 address");
  return a;
}

Ip4Addr IpGenAddr::v4() const {
  if (!isV4()) return Ip4Addr();
  return Ip4Addr::fromBytes(bytes_.data());
}

Ip6Addr IpGenAddr::v6() const {
  if (!isV6()) return Ip6Addr();
  return Ip6Addr{bytes_};
}

std::span<uint8_t const> IpGenAddr::bytes() const& {
  switch (af_) {
    case Family::ipv4:
      return {bytes_.data(), 4};
    case Family::ipv6:
      return {bytes_.data(), 16};
    case Family::none:
      break;
  }
  return {};
}

String IpGenAddr::stringValue() const {
  switch (af_) {
    case Family::ipv4:
      return v4().stringValue();
    case Family::ipv6:
      return v6().stringValue();
    case Family::none:
      break;
  }
  return "none";
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text, String* error) {
  if (text == "none") return IpGenAddr();
  if (text.find(':') != std::string_view::npos) {
    if (auto a = Ip6Addr::parse(text)) return IpGenAddr(*a);
  } else if (auto a = Ip4Addr::parse(text)) {
    return IpGenAddr(*a);
  }
  return failParse<IpGenAddr>(error, text, "an IPv4 or IPv6 address or 'none'");
}

std::ostream& operator<<(std::ostream& os, Ip4Addr const& a) {
  return os << a.stringValue();
}
std::ostream& operator<<(std::ostream& os, Ip6Addr const& a) {
  return os << a.stringValue();
}
std::ostream& operator<<(std::ostream& os, IpGenAddr const& a) {
  return os << a.stringValue();
}

}  // namespace Calyx
