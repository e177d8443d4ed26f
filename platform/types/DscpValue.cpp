#include "platform/types/DscpValue.h"

#include <charconv>
#include <ostream>

#include "platform/types/Hash.h"

namespace Calyx {

uint32_t DscpValue::hash(uint32_t seed) const {
  IncrementalHash h(seed);
  h.add8(value_);
  return h.value();
}

std::optional<DscpValue> DscpValue::parse(std::string_view text, String* error) {
  unsigned v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  bool number = !text.empty() && ec == std::errc() && end == text.data() + text.size();
  if (number && v <= kMax) return DscpValue(v);
  if (error) *error = "'" + String(text) + "' is not a DSCP value (a decimal number from 0 to 63)";
  return std::nullopt;
}

std::ostream& operator<<(std::ostream& os, DscpValue const& d) {
  return os << unsigned(d.value());
}

}  // namespace Calyx
