#pragma once
// toml++ 3.3 breaks its own preconditions on some text that is not TOML: an assertion in a debug build,
// undefined behaviour in a release one, so one mistyped line would end the agent, also on reload. The text is
// read here first, and such a line refused with the reason toml++ would have given:
// - a table header whose name does not start like a key ("[=", "[[[1]]]", a "[" alone, a non-ASCII letter);
//   a line of a multi-line array that opens a nested array the same way is taken for one too (no setting
//   takes a nested array);
// - a character beyond ASCII anywhere but in a comment: toml++ asks whether such a character is whitespace in
//   more places than a string or a comment (a key, a value, after an escape or a line-ending backslash) and
//   reaches code it holds unreachable. No setting needs more than ASCII, so none is lost.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ModAgent {

struct TomlRefusal {
  size_t line = 0;   // from 1
  std::string what;  // the reason, as a parse error's description
};

// The first line toml++ must not see, or nothing when the whole text may go to it.
std::optional<TomlRefusal> tomlTextRefused(std::string_view text);

}  // namespace ModAgent
