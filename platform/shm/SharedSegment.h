#pragma once
// SharedSegment: one mapping of a shared-table segment (owning; unmapped when destroyed or replaced).
//
// A segment is either a file mapped MAP_SHARED (the writer's published segment, or a reader's read-only view
// of one) or anonymous private memory (a writer that cannot publish keeps its table working in process). The
// file descriptor is closed once the file is mapped: the mapping keeps the file's pages alive even after the
// file is renamed over or removed. Only this class calls mmap for the tables.

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/shm/SharedTableLayout.h"

namespace Calyx {

class SharedSegment {
 public:
  enum class OpenResult { ok, missing, tooShort, failed };

  SharedSegment() = default;
  SharedSegment(SharedSegment&& o) noexcept;
  SharedSegment& operator=(SharedSegment&& o) noexcept;
  SharedSegment(SharedSegment const&) = delete;
  SharedSegment& operator=(SharedSegment const&) = delete;
  ~SharedSegment();

  // A new file at path (replacing any file there) with its pages reserved up front, so that a full tmpfs is
  // an error here rather than a SIGBUS on first touch. Slots are zero (free, version 0); the header is filled
  // in. On failure the segment is unmapped and error says why.
  static SharedSegment create(std::string const& path, SegmentGeometry const& g, uint64_t generation,
                              std::string& error);
  // The same in anonymous private memory.
  static SharedSegment createPrivate(SegmentGeometry const& g, uint64_t generation, std::string& error);
  // An existing file, whole: read-write for a writer re-opening it, read-only for readers. A symlink at path
  // is not followed (failed, ELOOP); files are created the same way.
  static OpenResult open(std::string const& path, bool writable, SharedSegment& out, std::string& error);

  // File-system steps of publishing: the state directory (made when missing, one level) and the atomic
  // replacement of the published file by a newly written one.
  static bool makeDirectory(std::string const& dir, std::string& error);
  static bool replaceFile(std::string const& from, std::string const& to, std::string& error);

  bool mapped() const { return base_ != nullptr; }
  bool isFile() const { return isFile_; }
  size_t bytes() const { return bytes_; }
  SegmentHeader& header() const { return *reinterpret_cast<SegmentHeader*>(base_); }
  std::byte* slots() const { return base_ + sizeof(SegmentHeader); }

  // True while path still names the file this segment maps (a writer may have renamed a newer one over it).
  bool isFileAt(std::string const& path) const;

  void unmap();

 private:
  SharedSegment(std::byte* base, size_t bytes, bool isFile) : base_(base), bytes_(bytes), isFile_(isFile) {}
  void identify(int fd);
  void initHeader(SegmentGeometry const& g, uint64_t generation);

  std::byte* base_ = nullptr;
  size_t bytes_ = 0;
  bool isFile_ = false;
  uint64_t device_ = 0;
  uint64_t inode_ = 0;
};

}  // namespace Calyx
