#pragma once
// The text form every value of the feature prints in traces and parses back:
//   Value('MirrorOnDrop::FlowKey', ** {'ipProto': 6, 'srcIp': 10.0.0.1, ...})
// ValueTextWriter composes it; ValueTextReader takes it apart attribute by attribute, in the order given, and
// throws std::range_error naming the attribute whose text is missing or does not parse. Nested values (an
// entry holding a key) are taken whole: a field ends at the first ", '" outside parentheses and braces.

#include <charconv>
#include <concepts>
#include <cstdint>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace MirrorOnDrop::Detail {

class ValueTextWriter {
 public:
  explicit ValueTextWriter(std::string_view typeName) { os_ << "Value('" << typeName << "', ** {"; }
  template <class T>
  ValueTextWriter& field(std::string_view name, T const& value) {
    os_ << (first_ ? "" : ", ") << '\'' << name << "': ";
    if constexpr (std::is_integral_v<T> && sizeof(T) == 1) {
      os_ << static_cast<unsigned>(value);
    } else {
      os_ << value;
    }
    first_ = false;
    return *this;
  }
  std::string str() {
    os_ << "})";
    return os_.str();
  }

 private:
  std::ostringstream os_;
  bool first_ = true;
};

class ValueTextReader {
 public:
  // Throws std::range_error naming firstField when the text is not a value of typeName at all.
  ValueTextReader(std::string_view text, std::string_view typeName, std::string_view firstField);

  // The text of the next attribute, which must be called name.
  std::string_view field(std::string_view name);

  // The next attribute as an unsigned number that fits in T.
  template <std::unsigned_integral T>
  T number(std::string_view name) {
    return parseNumber<T>(field(name), name);
  }

  // Throws naming name unless every attribute has been read.
  void end(std::string_view name) const;

  template <std::unsigned_integral T>
  static T parseNumber(std::string_view text, std::string_view name) {
    uint64_t v = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || ptr != text.data() + text.size() || text.empty() ||
        v > std::numeric_limits<T>::max()) {
      fail(name);
    }
    return static_cast<T>(v);
  }

  [[noreturn]] static void fail(std::string_view name);

 private:
  std::string_view rest_;
};

}  // namespace MirrorOnDrop::Detail
