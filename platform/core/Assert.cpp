#include "platform/core/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Calyx {

void assertionFailed(std::string_view message, char const* file, int line, char const* function) {
  std::fprintf(stderr, "%s:%d: %s: assertion failed: %.*s\n", file, line, function,
               static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace Calyx
