#include "platform/core/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Calyx {

void assertionFailed(std::string_view message, std::source_location where) {
  std::fprintf(stderr, "%s:%u: %s: assertion failed: %.*s\n", where.file_name(), where.line(),
               where.function_name(), static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace Calyx
