#pragma once
// TraceSink: where the trace registry puts composed lines.
//
//   StderrTraceSink  one line per call on stderr: "<UTC time> <channel> <level> <line>", the time in ISO 8601
//                    with microseconds ("2026-11-25T08:56:00.173579Z"); a line break inside a line is
//                    written as "\n", so one output line is one record.
//   FileTraceSink    the same lines appended to a file (made with mode 0640), each handed to the kernel at
//                    once (no user-space buffer, so nothing is lost when the process dies). A file that
//                    cannot be opened is reported by isOpen() and error(); lines are then dropped. Write
//                    failures are counted, never thrown.
//   MemoryTraceSink  keeps every line in memory; tests read them back, all or one channel's.
//
// Every sink may be called from more than one thread; a line is written by one system call, so lines from two
// threads do not interleave within a line.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Calyx {

// The wall-clock time now as "2026-11-25T08:56:00.173579Z" (UTC, ISO 8601, microseconds) into out, which
// must hold 28 bytes; returns the length written (no terminating zero counted).
size_t isoTimeNow(char* out, size_t size);

class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void write(std::string_view channel, int level, std::string_view line) = 0;
};

class StderrTraceSink final : public TraceSink {
 public:
  void write(std::string_view channel, int level, std::string_view line) override;
};

class FileTraceSink final : public TraceSink {
 public:
  explicit FileTraceSink(std::string path);
  FileTraceSink(FileTraceSink const&) = delete;
  FileTraceSink& operator=(FileTraceSink const&) = delete;
  ~FileTraceSink() override;

  std::string const& path() const { return path_; }
  bool isOpen() const { return fd_ >= 0; }
  std::string const& error() const { return error_; }  // empty while open
  uint64_t failedWrites() const { return failedWrites_.load(std::memory_order_relaxed); }

  void write(std::string_view channel, int level, std::string_view line) override;

 private:
  std::string path_;
  int fd_ = -1;
  std::string error_;
  std::atomic<uint64_t> failedWrites_{0};
};

struct TraceEntry {
  std::string channel;
  int level;
  std::string line;
};

class MemoryTraceSink final : public TraceSink {
 public:
  void write(std::string_view channel, int level, std::string_view line) override;

  std::vector<std::string> lines() const;
  std::vector<std::string> lines(std::string_view channel) const;
  std::vector<TraceEntry> entries() const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<TraceEntry> entries_;
};

}  // namespace Calyx
