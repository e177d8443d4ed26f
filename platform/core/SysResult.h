#pragma once
// SysResult<T>: what a system call (or a short run of them) gives back: a value, or the errno it failed with
// and the context a message needs ("cannot create /dev/shm/calyx/t"). The platform's Linux-facing code
// returns it instead of a bool with an error string beside it; callers that word their own messages read
// code() and keep their text.
//
// Limits: no exceptions; value() on a failure (or error() on a success) is a programming error, checked by
// assert only.

#include <cassert>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <variant>

namespace Calyx {

struct SysError {
  int code = 0;           // the errno value; 0 when a check failed before any call (the context says why)
  std::string context;    // what was being done to what, without the errno text
  char const* call = "";  // the system call that failed, for callers that word their own messages

  // "<context>: <strerror(code)>", or the context alone when there is no errno.
  std::string text() const { return code == 0 ? context : context + ": " + std::strerror(code); }
};

template <class T>
class [[nodiscard]] SysResult {
 public:
  SysResult(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  SysResult(SysError error) : state_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  T& value() & {
    assert(ok());
    return std::get<0>(state_);
  }
  T const& value() const& {
    assert(ok());
    return std::get<0>(state_);
  }
  T&& value() && {
    assert(ok());
    return std::get<0>(std::move(state_));
  }
  SysError const& error() const {
    assert(!ok());
    return std::get<1>(state_);
  }
  int code() const { return ok() ? 0 : error().code; }

 private:
  std::variant<T, SysError> state_;
};

// A call that gives nothing back but success.
template <>
class [[nodiscard]] SysResult<void> {
 public:
  SysResult() = default;
  SysResult(SysError error) : error_(std::move(error)), failed_(true) {}

  bool ok() const { return !failed_; }
  explicit operator bool() const { return ok(); }
  SysError const& error() const {
    assert(failed_);
    return error_;
  }
  int code() const { return failed_ ? error_.code : 0; }

 private:
  SysError error_;
  bool failed_ = false;
};

// The failure of the call that just set errno.
inline SysError sysErrno(char const* call, std::string context) {
  return SysError{errno, std::move(context), call};
}

}  // namespace Calyx
