#pragma once
// The feature's trace helpers. Every line begins with an indentation chosen by how deeply traced handlers are
// nested at that moment (one blank per level, at most 16; deeper nesting keeps the 16-blank text), so a trace
// reads as a call tree. A handler raises the depth for as long as it runs with a TraceManager::Scope.
//
//   MOD_TRACE(trace, 5, "Storing report: packet processed, size = { original = " << size << ", ...");
//
// A line is composed only when its level is on.

#include <string_view>

#include "platform/core/Trace.h"

namespace MirrorOnDrop::Detail {

class TraceManager {
 public:
  static constexpr int kMaxIndent = 16;

  // Inline: every traced handler raises and lowers the depth, whether or not a line is written.
  static TraceManager& instance() { return instance_; }

  int depth() const { return depth_; }
  // The indentation for the current depth: none for a negative depth.
  std::string_view indent() const;
  bool isLineStart() const { return lineStart_; }
  void isLineStartIs(bool v) { lineStart_ = v; }

  // Raises the depth while a traced handler runs.
  class Scope {
   public:
    Scope() { ++instance().depth_; }
    ~Scope() { --instance().depth_; }
    Scope(Scope const&) = delete;
    Scope& operator=(Scope const&) = delete;
  };

 private:
  static TraceManager instance_;

  int depth_ = 0;
  bool lineStart_ = true;
};

}  // namespace MirrorOnDrop::Detail

#define MOD_TRACE(handle, level, expr) \
  CALYX_TRACE(handle, level, ::MirrorOnDrop::Detail::TraceManager::instance().indent() << expr)
