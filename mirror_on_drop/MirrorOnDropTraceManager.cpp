#include "mirror_on_drop/MirrorOnDropTraceManager.h"

#include <algorithm>

namespace MirrorOnDrop::Detail {

namespace {
constexpr char kBlanks[TraceManager::kMaxIndent + 1] = "                ";
}

constinit TraceManager TraceManager::instance_;

std::string_view TraceManager::indent() const {
  int const n = std::clamp(depth_, 0, kMaxIndent);
  return std::string_view(kBlanks, static_cast<size_t>(n));
}

}  // namespace MirrorOnDrop::Detail
