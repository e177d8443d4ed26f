#include "mirror_on_drop/MirrorOnDropValueText.h"

namespace MirrorOnDrop::Detail {

ValueTextReader::ValueTextReader(std::string_view text, std::string_view typeName,
                                 std::string_view firstField) {
  std::string const head = "Value('" + std::string(typeName) + "', ** {";
  if (!text.starts_with(head) || !text.ends_with("})")) fail(firstField);
  rest_ = text.substr(head.size(), text.size() - head.size() - 2);
}

std::string_view ValueTextReader::field(std::string_view name) {
  std::string const key = "'" + std::string(name) + "': ";
  if (!rest_.starts_with(key)) fail(name);
  rest_.remove_prefix(key.size());
  int depth = 0;
  size_t end = 0;
  for (; end < rest_.size(); ++end) {
    char const c = rest_[end];
    if (c == '(' || c == '{') ++depth;
    if (c == ')' || c == '}') --depth;
    if (depth == 0 && rest_.substr(end).starts_with(", '")) break;
  }
  std::string_view const value = rest_.substr(0, end);
  rest_.remove_prefix(end);
  if (rest_.starts_with(", ")) rest_.remove_prefix(2);
  return value;
}

void ValueTextReader::end(std::string_view name) const {
  if (!rest_.empty()) fail(name);
}

void ValueTextReader::fail(std::string_view name) {
  throw std::range_error("invalid or missing value for attribute '" + std::string(name) + "'");
}

}  // namespace MirrorOnDrop::Detail
