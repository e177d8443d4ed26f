// The agent's configuration loader over arbitrary text: the file a reload or a start reads. Whatever the
// text, the loader answers (no exception, no crash, no endless read) and either gives a configuration or
// refuses with errors that each name the file and a line within the text ("FILE:LINE: KEY: ..."). A
// configuration it accepts is accepted again from the same text, the same way: nothing in the loader depends
// on what it read before.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "agent/ConfigFile.h"

namespace {

constexpr char const* kFile = "fuzz.toml";

size_t lineCount(std::string const& text) {
  size_t lines = 1;
  for (char c : text) lines += c == '\n';
  return lines;
}

// "fuzz.toml:LINE: ..." with LINE within the text (a refusal of the whole file may name no line).
bool namesFileAndLine(std::string const& error, size_t lines) {
  std::string const prefix = std::string(kFile) + ":";
  if (error.rfind(prefix, 0) != 0) return false;
  char* end = nullptr;
  unsigned long const line = std::strtoul(error.c_str() + prefix.size(), &end, 10);
  if (end == error.c_str() + prefix.size()) return true;
  return line >= 1 && line <= lines && *end == ':';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  ModAgent::AgentConfig config;
  std::vector<std::string> errors;
  bool const ok = ModAgent::ConfigFile::parse(text, kFile, config, errors);
  if (ok != errors.empty()) std::abort();  // a refusal says why; an acceptance has nothing to say
  size_t const lines = lineCount(text);
  for (auto const& e : errors) {
    if (!namesFileAndLine(e, lines)) std::abort();
  }
  if (ok) {
    ModAgent::AgentConfig again;
    std::vector<std::string> none;
    if (!ModAgent::ConfigFile::parse(text, kFile, again, none) ||
        again.trackers.size() != config.trackers.size())
      std::abort();
  }
  return 0;
}
