#include "tools/mod-collector/Duration.h"

#include <charconv>
#include <chrono>
#include <ctime>

namespace ModCollector {
namespace {

struct Unit {
  char suffix;
  int64_t seconds;
};
constexpr Unit kUnits[] = {{'w', 7 * 86400}, {'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}};

}  // namespace

std::optional<int64_t> parseDuration(std::string const& text) {
  if (text.size() < 2) return std::nullopt;
  int64_t n = 0;
  char const* end = text.data() + text.size() - 1;
  auto [last, ec] = std::from_chars(text.data(), end, n);
  if (ec != std::errc() || last != end || n <= 0) return std::nullopt;
  for (Unit const& u : kUnits) {
    if (*end != u.suffix) continue;
    if (n > INT64_MAX / (u.seconds * kMicrosPerSecond)) return std::nullopt;
    return n * u.seconds * kMicrosPerSecond;
  }
  return std::nullopt;
}

std::string durationText(int64_t micros) {
  int64_t const seconds = micros / kMicrosPerSecond;
  for (Unit const& u : kUnits) {
    if (seconds > 0 && seconds % u.seconds == 0) return std::to_string(seconds / u.seconds) + u.suffix;
  }
  return std::to_string(seconds) + "s";
}

int64_t wallClockMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string isoTime(int64_t micros) {
  std::time_t const seconds = static_cast<std::time_t>(micros / kMicrosPerSecond);
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  char buf[40];
  size_t const n = std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
  std::snprintf(buf + n, sizeof buf - n, ".%03dZ", static_cast<int>(micros % kMicrosPerSecond / 1000));
  return buf;
}

}  // namespace ModCollector
