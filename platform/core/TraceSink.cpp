#include "platform/core/TraceSink.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace Calyx {

namespace {

iovec iov(std::string_view text) {
  return iovec{const_cast<char*>(text.data()), text.size()};
}

// Writes "<monotonic seconds> <channel> <level> <line>\n" with one writev: no allocation, no user-space
// buffer, and one system call per line so concurrent writers do not interleave within a line. False on error
// or short write.
bool lineWrite(int fd, std::string_view channel, int level, std::string_view line) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  char stamp[40];
  int const stampSize = std::snprintf(stamp, sizeof stamp, "%lld.%06ld ", static_cast<long long>(now.tv_sec),
                                      now.tv_nsec / 1000);
  char levelText[16];
  int const levelSize = std::snprintf(levelText, sizeof levelText, " %d ", level);
  iovec parts[] = {iov({stamp, static_cast<size_t>(stampSize)}), iov(channel),
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
  fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
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
