#include "platform/core/TraceSink.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace Calyx {

size_t isoTimeNow(char* out, size_t size) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  size_t n = std::strftime(out, size, "%Y-%m-%dT%H:%M:%S", &utc);
  int const more = std::snprintf(out + n, size - n, ".%06ldZ", now.tv_nsec / 1000);
  if (more > 0) n += std::min(static_cast<size_t>(more), size - n - 1);
  return n;
}

namespace {

iovec iov(std::string_view text) {
  return iovec{const_cast<char*>(text.data()), text.size()};
}

// Writes "<UTC time, ISO 8601, microseconds> <channel> <level> <line>\n" with one writev: no user-space
// buffer, and one system call per line so concurrent writers do not interleave within a line. A line break
// inside the line is written as "\n", so that one line of the output is always one record. False on error or
// short write.
bool lineWrite(int fd, std::string_view channel, int level, std::string_view line) {
  char stamp[40];
  size_t const stampSize = isoTimeNow(stamp, sizeof stamp);
  stamp[stampSize] = ' ';
  char levelText[16];
  int const levelSize = std::snprintf(levelText, sizeof levelText, " %d ", level);
  std::string escaped;
  if (line.find('\n') != std::string_view::npos) {
    for (char c : line) escaped += c == '\n' ? std::string_view("\\n") : std::string_view(&c, 1);
    line = escaped;
  }
  iovec parts[] = {iov({stamp, stampSize + 1}), iov(channel),
                   iov({levelText, static_cast<size_t>(levelSize)}), iov(line), iov("\n")};
  size_t total = 0;
  for (auto const& part : parts) total += part.iov_len;
  ssize_t written;
  do {
    written = ::writev(fd, parts, static_cast<int>(std::size(parts)));
  } while (written < 0 && errno == EINTR);
  return written == static_cast<ssize_t>(total);
}

}  // namespace

void StderrTraceSink::write(std::string_view channel, int level, std::string_view line) {
  lineWrite(STDERR_FILENO, channel, level, line);
}

FileTraceSink::FileTraceSink(std::string path) : path_(std::move(path)) {
  fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
  if (fd_ < 0) error_ = "Cannot open trace file " + path_ + ": " + std::strerror(errno) + ".";
}

FileTraceSink::~FileTraceSink() {
  if (fd_ >= 0) ::close(fd_);
}

void FileTraceSink::write(std::string_view channel, int level, std::string_view line) {
  if (fd_ < 0 || !lineWrite(fd_, channel, level, line)) failedWrites_.fetch_add(1, std::memory_order_relaxed);
}

void MemoryTraceSink::write(std::string_view channel, int level, std::string_view line) {
  std::lock_guard lock(mutex_);
  entries_.push_back(TraceEntry{std::string(channel), level, std::string(line)});
}

std::vector<std::string> MemoryTraceSink::lines() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  result.reserve(entries_.size());
  for (auto const& entry : entries_) result.push_back(entry.line);
  return result;
}

std::vector<std::string> MemoryTraceSink::lines(std::string_view channel) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  for (auto const& entry : entries_) {
    if (entry.channel == channel) result.push_back(entry.line);
  }
  return result;
}

std::vector<TraceEntry> MemoryTraceSink::entries() const {
  std::lock_guard lock(mutex_);
  return entries_;
}

void MemoryTraceSink::clear() {
  std::lock_guard lock(mutex_);
  entries_.clear();
}

}  // namespace Calyx
