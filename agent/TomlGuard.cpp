#include "agent/TomlGuard.h"

#include <algorithm>

namespace ModAgent {

namespace {

size_t badTableHeaderLine(std::string_view text) {
  size_t line = 1;
  for (size_t at = 0; at < text.size(); ++line) {
    size_t const end = std::min(text.find('\n', at), text.size());
    std::string_view const l = text.substr(at, end - at);
    at = end + 1;
    size_t i = l.find_first_not_of(" \t");
    if (i == std::string_view::npos || l[i] != '[') continue;
    i += (i + 1 < l.size() && l[i + 1] == '[') ? 2 : 1;
    while (i < l.size() && (l[i] == ' ' || l[i] == '\t')) ++i;
    char const c = i < l.size() ? l[i] : '\n';
    bool const keyStart = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                          c == '_' || c == '-' || c == '"' || c == '\'' || c == ']';
    if (!keyStart) return line;
  }
  return 0;
}

// Walks the text as TOML's lexer does for strings and comments only: basic strings ("..." and """...""",
// with backslash escapes), literal ones ('...' and '''...''') and comments to the end of the line. A
// single-line string ends at its line's end at the latest, as a broken one does for toml++.
size_t nonAsciiOutsideStringsLine(std::string_view text) {
  size_t line = 1;
  size_t i = 0;
  auto const opens = [&](std::string_view quote) { return text.substr(i, quote.size()) == quote; };
  auto const skipTo = [&](std::string_view quote, bool escapes, bool multiLine) {
    while (i < text.size()) {
      char const c = text[i];
      if (c == '\n') {
        if (!multiLine) return;
        ++line;
      } else if (escapes && c == '\\') {
        if (i + 1 < text.size() && text[i + 1] == '\n') ++line;
        ++i;
      } else if (opens(quote)) {
        i += quote.size();
        return;
      }
      ++i;
    }
  };
  while (i < text.size()) {
    char const c = text[i];
    if (c == '\n') {
      ++line;
      ++i;
    } else if (c == '#') {
      while (i < text.size() && text[i] != '\n') ++i;
    } else if (opens("\"\"\"") || opens("'''")) {
      bool const basic = c == '"';
      i += 3;
      skipTo(basic ? "\"\"\"" : "'''", basic, true);
    } else if (c == '"' || c == '\'') {
      ++i;
      skipTo(c == '"' ? "\"" : "'", c == '"', false);
    } else if (static_cast<unsigned char>(c) >= 0x80) {
      return line;
    } else {
      ++i;
    }
  }
  return 0;
}

}  // namespace

std::optional<TomlRefusal> tomlTextRefused(std::string_view text) {
  size_t const header = badTableHeaderLine(text);
  size_t const character = nonAsciiOutsideStringsLine(text);
  if (header != 0 && (character == 0 || header <= character))
    return TomlRefusal{header,
                       "Error while parsing table header: expected a name (letters, digits, _ or -, "
                       "or quoted)"};
  if (character != 0)
    return TomlRefusal{character,
                       "a character beyond ASCII outside a string or comment (keys and values are "
                       "ASCII; quote text that is not)"};
  return std::nullopt;
}

}  // namespace ModAgent
