#pragma once
// Fatal assertions: only where the system's definition names an invariant. The message names the broken
// expectation, the function and the source file; the process then aborts. The one other abort is the
// platform's last resort for a shared table found corrupted in a process that set no corruption handler
// (the agent sets one: it sets damaged tables aside, or exits with its own status).

#include <string_view>

namespace Calyx {

[[noreturn]] void assertionFailed(std::string_view message, char const* file, int line, char const* function);

}  // namespace Calyx

#define CALYX_ASSERT(cond, message)                                                          \
  do {                                                                                       \
    if (!(cond)) ::Calyx::assertionFailed(message, __FILE__, __LINE__, __PRETTY_FUNCTION__); \
  } while (0)
