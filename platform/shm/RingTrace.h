#pragma once
// RingTrace: an always-on, compact record of a few key events, kept in a shared-memory file so that it
// survives a crash of the process that writes it and can be read by another process (modctl) while the writer
// runs or after it died.
//
// The file is mapped MAP_SHARED, so every record is in the page cache the moment it is written; a SIGKILL
// loses at most the record being written, and readers skip that one because its commit marker does not match
// its sequence number. Until open() is called the ring lives in anonymous memory; open() carries those
// records into the file.
//
// Limits: one writer per file (a second process writing the same file would interleave sequence numbers);
// texts are cut to kTextMax bytes; the file uses the host's byte order and is meant to be read on the same
// host. record() takes a lock, so threads may share the ring, but it is meant for rare key events, not for
// per-packet detail.

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/shm/MappedFile.h"

namespace Calyx {

// The file: a 64-byte header, then `capacity` records of 256 bytes. Record k holds sequence numbers s with
// (s - 1) % capacity == k; sequence numbers start at 1, so 0 marks a record never written or being written.
namespace RingTraceFormat {

inline constexpr char kMagic[8] = {'C', 'L', 'X', 'R', 'I', 'N', 'G', '\0'};
inline constexpr uint32_t kVersion = 1;
inline constexpr size_t kTextMax = 224;
inline constexpr uint32_t kCapacityMax = 1u << 20;

struct Header {
  char magic[8];        // written last when a file is made, so a half-made file never looks valid
  uint32_t version;     // kVersion
  uint32_t recordSize;  // sizeof(Record)
  uint32_t capacity;    // number of records
  uint32_t reserved0;
  uint64_t nextSeq;  // the sequence number the next record gets; moved on before that record is touched
  uint8_t reserved[32];
};

struct Record {
  uint64_t commit;  // equals seq once the record is whole; 0 while it is being written
  uint64_t seq;
  uint64_t timeNs;  // CLOCK_REALTIME, nanoseconds since the epoch
  uint32_t length;  // bytes used in text
  uint32_t reserved;
  char text[kTextMax];
};

static_assert(sizeof(Header) == 64);
static_assert(sizeof(Record) == 256);

inline size_t fileSize(uint32_t capacity) {
  return sizeof(Header) + size_t{capacity} * sizeof(Record);
}

}  // namespace RingTraceFormat

struct RingTraceRecord {
  uint64_t seq;
  uint64_t timeNs;
  std::string text;
  bool operator==(RingTraceRecord const&) const = default;
};

class RingTrace {
 public:
  static constexpr uint32_t kDefaultCapacity = 4096;

  RingTrace() = default;
  RingTrace(RingTrace const&) = delete;
  RingTrace& operator=(RingTrace const&) = delete;
  ~RingTrace();

  // The process-wide ring; never destroyed, so it may be used while the process exits.
  static RingTrace& instance();

  // Maps the file at path, creating it, or re-opening it and going on after its last record when it has the
  // same layout and capacity. A file of ours with another layout or capacity is replaced (atomically, by
  // rename, so readers never see it half-made); a file that is not a ring trace is left alone and open fails.
  // On failure the ring keeps recording where it did before, and error() says why.
  bool open(std::string const& path, uint32_t capacity = kDefaultCapacity);
  std::string const& error() const { return error_; }
  std::string const& path() const { return path_; }  // empty while the ring is in memory

  // One record: the next sequence number, the time (CLOCK_REALTIME) and the text cut to kTextMax bytes. The
  // oldest record is overwritten.
  void record(std::string_view text);

  // What this ring holds now, oldest first.
  std::vector<RingTraceRecord> records() const;

 private:
  void recordAt(uint64_t timeNs, std::string_view text);

  mutable std::mutex mutex_;
  MappedFile mapping_;  // header followed by the records; unmapped until the first record or open()
  std::string path_;
  std::string error_;
};

// Reads a ring trace file written by another process (running or dead): a snapshot of the newest records
// whose commit marker matches, oldest first. A file that is missing, too short or not a ring trace gives
// nullopt and a message naming the file and the fault.
class RingTraceReader {
 public:
  static std::optional<std::vector<RingTraceRecord>> read(std::string const& path,
                                                          std::string* error = nullptr);
};

}  // namespace Calyx
