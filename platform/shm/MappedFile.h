#pragma once
// MappedFile: one mapping of a shared-memory file, or of anonymous private memory standing in for one
// (owning; unmapped when destroyed or replaced). Only this class calls mmap for the platform's shared files.
//
// Files are made the same way for every user: under a temporary name, with their pages reserved up front (so
// a full tmpfs is an error here rather than a SIGBUS on first touch), mode 0640, then renamed over the
// published name once their contents are whole, so a reader that opens the path never sees a half-made file.
// No path is ever followed through a symlink: whoever could plant one would choose what a writer maps and
// overwrites. The descriptor is closed once the file is mapped: the mapping keeps the file's pages alive even
// after the file is renamed over or removed.
//
// Failures carry the system call that failed (SysError::call) and a context in the words "cannot <do what>
// <path>", for callers that word their own messages.

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/core/SysResult.h"

namespace Calyx {

class MappedFile {
 public:
  MappedFile() = default;
  MappedFile(MappedFile&& o) noexcept;
  MappedFile& operator=(MappedFile&& o) noexcept;
  MappedFile(MappedFile const&) = delete;
  MappedFile& operator=(MappedFile const&) = delete;
  ~MappedFile();

  // A new file of bytes zero bytes at path (replacing any file there), mapped read-write. The file is removed
  // again when it cannot be reserved or mapped.
  static SysResult<MappedFile> create(std::string const& path, size_t bytes);
  // Zeroed anonymous private memory: a writer that cannot publish keeps working in process.
  static SysResult<MappedFile> createPrivate(size_t bytes);
  // An existing file, whole: read-write for a writer re-opening it, read-only for readers. A file shorter
  // than minBytes is not mapped: the result is a success that is not mapped(), with the file's size in
  // bytes(). A missing file fails with ENOENT.
  static SysResult<MappedFile> open(std::string const& path, bool writable, size_t minBytes);

  // The directory that holds published files (made when missing, one level, mode 0750).
  static SysResult<void> makeDirectory(std::string const& dir);
  // The atomic replacement of the file at to by the newly written one at from; from is removed on failure.
  static SysResult<void> replaceFile(std::string const& from, std::string const& to);

  bool mapped() const { return base_ != nullptr; }
  bool isFile() const { return isFile_; }
  size_t bytes() const { return bytes_; }
  std::byte* base() const { return base_; }

  // True while path still names the file this maps (a writer may have renamed a newer one over it).
  bool isFileAt(std::string const& path) const;

  void unmap();

 private:
  MappedFile(std::byte* base, size_t bytes, bool isFile) : base_(base), bytes_(bytes), isFile_(isFile) {}
  void identify(int fd);

  std::byte* base_ = nullptr;
  size_t bytes_ = 0;
  bool isFile_ = false;
  uint64_t device_ = 0;
  uint64_t inode_ = 0;
};

}  // namespace Calyx
