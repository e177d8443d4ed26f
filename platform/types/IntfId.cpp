#include "platform/types/IntfId.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ostream>
#include <stdexcept>

namespace Calyx {

namespace {

// Returns the reason a name is not acceptable, or an empty string.
String nameProblem(std::string_view name) {
  if (name.size() > IntfId::kMaxLength) {
    return "interface name '" + String(name) + "' is longer than " + std::to_string(IntfId::kMaxLength) +
           " characters";
  }
  bool printable = std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7f; });
  if (!printable) return "interface name '" + String(name) + "' holds a blank or non-printable character";
  return String();
}

struct Abbreviation {
  std::string_view prefix;
  std::string_view shortPrefix;
};
constexpr Abbreviation kAbbreviations[] = {{"Ethernet", "Et"}, {"Port-Channel", "Po"}};

}  // namespace

IntfId::IntfId(std::string_view name) {
  String problem = nameProblem(name);
  if (!problem.empty()) throw std::invalid_argument(problem);
  std::memcpy(name_, name.data(), name.size());
}

String IntfId::shortName() const {
  std::string_view n = name();
  for (auto const& a : kAbbreviations) {
    // Only a prefix followed by the interface number is abbreviated: "Ethernet" alone or "EthernetX" stay as
    // they are.
    if (n.size() > a.prefix.size() && n.starts_with(a.prefix) && std::isdigit(uint8_t(n[a.prefix.size()]))) {
      return String(a.shortPrefix) + String(n.substr(a.prefix.size()));
    }
  }
  return String(n);
}

std::optional<IntfId> IntfId::parse(std::string_view text, String* error) {
  String problem = nameProblem(text);
  if (problem.empty()) return IntfId(text);
  if (error) *error = std::move(problem);
  return std::nullopt;
}

std::ostream& operator<<(std::ostream& os, IntfId const& i) {
  return os << i.name();
}

}  // namespace Calyx
