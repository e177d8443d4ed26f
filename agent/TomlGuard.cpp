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

// The line of the first character beyond ASCII that is not in a comment; 0 when there is none. Strings are
// walked only to tell a # in a string from one that opens a comment: basic strings ("..." and """...""",
// with backslash escapes) and literal ones ('...' and '''...'''); a single-line string ends at its line's
// end at the latest. Where this walk and toml++ disagree on where a string is, the character is refused or
// lies in a string for toml++: either way toml++ never asks whether it is whitespace.
size_t nonAsciiOutsideCommentsLine(std::string_view text) {
  size_t line = 1;
  size_t i = 0;
  auto const beyondAscii = [&] { return static_cast<unsigned char>(text[i]) >= 0x80; };
  auto const opens = [&](std::string_view quote) { return text.substr(i, quote.size()) == quote; };
  // False at a character beyond ASCII in the string.
  auto const skipTo = [&](std::string_view quote, bool escapes, bool multiLine) {
    while (i < text.size()) {
      if (beyondAscii()) return false;
      if (text[i] == '\n') {
        if (!multiLine) return true;
        ++line;
      } else if (escapes && text[i] == '\\') {
        ++i;
        if (i < text.size() && beyondAscii()) return false;
        if (i < text.size() && text[i] == '\n') ++line;
      } else if (opens(quote)) {
        i += quote.size();
        return true;
      }
      ++i;
    }
    return true;
  };
  while (i < text.size()) {
    char const c = text[i];
    if (c == '#') {
      while (i < text.size() && text[i] != '\n') ++i;
    } else if (c == '\n') {
      ++line;
      ++i;
    } else if (opens("\"\"\"") || opens("'''")) {
      i += 3;
      if (!skipTo(c == '"' ? "\"\"\"" : "'''", c == '"', true)) return line;
    } else if (c == '"' || c == '\'') {
      ++i;
      if (!skipTo(c == '"' ? "\"" : "'", c == '"', false)) return line;
    } else if (beyondAscii()) {
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
  size_t const character = nonAsciiOutsideCommentsLine(text);
  if (header != 0 && (character == 0 || header <= character))
    return TomlRefusal{header,
                       "Error while parsing table header: expected a name (letters, digits, _ or -, "
                       "or quoted)"};
  if (character != 0)
    return TomlRefusal{character,
                       "a character beyond ASCII outside a comment (keys and values are ASCII here; other "
                       "text belongs in comments)"};
  return std::nullopt;
}

}  // namespace ModAgent
