#pragma once
// Durations as operators type them: a whole number and a unit, "90s", "15m", "1h", "7d", "2w". The same text
// is taken by --retain, by the queries' --since and --step, and by the page's API.

#include <cstdint>
#include <optional>
#include <string>

namespace ModCollector {

inline constexpr int64_t kMicrosPerSecond = 1000000;

// Microseconds, or nothing when the text is not a positive number followed by s, m, h, d or w.
std::optional<int64_t> parseDuration(std::string const& text);
// The shortest exact text of a duration parsed above ("1h" for 3600 s, "90s").
std::string durationText(int64_t micros);
// The wall clock, in microseconds since 1970-01-01 UTC.
int64_t wallClockMicros();
// "2025-11-25T08:31:02.123Z": UTC, milliseconds.
std::string isoTime(int64_t micros);

}  // namespace ModCollector
