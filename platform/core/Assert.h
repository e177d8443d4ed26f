#pragma once
// Fatal assertions: only where the system's definition names an invariant. The message names the broken
// expectation, the function and the source file; the process then aborts. Nothing else in the system aborts.

#include <source_location>
#include <string_view>

namespace Calyx {

[[noreturn]] void assertionFailed(std::string_view message,
                                  std::source_location where = std::source_location::current());

}  // namespace Calyx

#define CALYX_ASSERT(cond, message)                 \
  do {                                              \
    if (!(cond)) ::Calyx::assertionFailed(message); \
  } while (0)
