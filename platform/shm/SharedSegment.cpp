#include "platform/shm/SharedSegment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Calyx {

namespace {

std::string sysError(char const* what, std::string const& path, int err) {
  return std::string(what) + " " + path + ": " + std::strerror(err);
}

// Closes a descriptor on every return path.
struct Fd {
  int fd;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

SharedSegment::SharedSegment(SharedSegment&& o) noexcept
    : base_(std::exchange(o.base_, nullptr)),
      bytes_(std::exchange(o.bytes_, 0)),
      isFile_(o.isFile_),
      device_(o.device_),
      inode_(o.inode_) {}

SharedSegment& SharedSegment::operator=(SharedSegment&& o) noexcept {
  if (this == &o) return *this;
  unmap();
  base_ = std::exchange(o.base_, nullptr);
  bytes_ = std::exchange(o.bytes_, 0);
  isFile_ = o.isFile_;
  device_ = o.device_;
  inode_ = o.inode_;
  return *this;
}

void SharedSegment::identify(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return;
  device_ = st.st_dev;
  inode_ = st.st_ino;
}

bool SharedSegment::isFileAt(std::string const& path) const {
  struct stat st {};
  if (!isFile_ || ::lstat(path.c_str(), &st) != 0) return false;
  return st.st_dev == device_ && st.st_ino == inode_;
}

SharedSegment::~SharedSegment() {
  unmap();
}

void SharedSegment::unmap() {
  if (base_) ::munmap(base_, bytes_);
  base_ = nullptr;
  bytes_ = 0;
}

void SharedSegment::initHeader(SegmentGeometry const& g, uint64_t generation) {
  SegmentHeader& h = header();
  h.magic = kSharedTableMagic;
  h.layoutVersion = kSharedTableLayoutVersion;
  h.headerSize = sizeof(SegmentHeader);
  h.keySize = g.keySize;
  h.valueSize = g.valueSize;
  h.slotSize = g.slotSize();
  h.retired = 0;
  h.capacity = g.capacity;
  h.generation = generation;
}

SharedSegment SharedSegment::create(std::string const& path, SegmentGeometry const& g, uint64_t generation,
                                    std::string& error) {
  Fd f{::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0640)};
  if (f.fd < 0) {
    error = sysError("cannot create", path, errno);
    return {};
  }
  size_t const bytes = g.bytes();
  int err = ::posix_fallocate(f.fd, 0, static_cast<off_t>(bytes));
  if (err == EOPNOTSUPP || err == EINVAL) err = ::ftruncate(f.fd, static_cast<off_t>(bytes)) == 0 ? 0 : errno;
  if (err != 0) {
    ::unlink(path.c_str());
    error = sysError(("cannot reserve " + std::to_string(bytes) + " bytes for").c_str(), path, err);
    return {};
  }
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, f.fd, 0);
  if (p == MAP_FAILED) {
    ::unlink(path.c_str());
    error = sysError("cannot map", path, errno);
    return {};
  }
  SharedSegment s(static_cast<std::byte*>(p), bytes, true);
  s.identify(f.fd);
  s.initHeader(g, generation);
  return s;
}

SharedSegment SharedSegment::createPrivate(SegmentGeometry const& g, uint64_t generation,
                                           std::string& error) {
  size_t const bytes = g.bytes();
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    error = sysError("cannot map private memory for", "a table", errno);
    return {};
  }
  SharedSegment s(static_cast<std::byte*>(p), bytes, false);
  s.initHeader(g, generation);
  return s;
}

bool SharedSegment::makeDirectory(std::string const& dir, std::string& error) {
  if (::mkdir(dir.c_str(), 0750) == 0 || errno == EEXIST) return true;
  error = sysError("cannot make state directory", dir, errno);
  return false;
}

bool SharedSegment::replaceFile(std::string const& from, std::string const& to, std::string& error) {
  if (::rename(from.c_str(), to.c_str()) == 0) return true;
  error = sysError(("cannot rename " + from + " to").c_str(), to, errno);
  ::unlink(from.c_str());
  return false;
}

SharedSegment::OpenResult SharedSegment::open(std::string const& path, bool writable, SharedSegment& out,
                                              std::string& error) {
  out.unmap();
  // Never through a symlink: whoever could plant one would choose what a writer maps and overwrites.
  Fd f{::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW)};
  if (f.fd < 0) {
    int const err = errno;
    error = sysError("cannot open", path, err);
    return err == ENOENT ? OpenResult::missing : OpenResult::failed;
  }
  struct stat st {};
  if (::fstat(f.fd, &st) != 0) {
    error = sysError("cannot stat", path, errno);
    return OpenResult::failed;
  }
  auto const bytes = static_cast<size_t>(st.st_size);
  if (bytes < sizeof(SegmentHeader)) {
    error = "file " + path + " of " + std::to_string(bytes) + " bytes is shorter than a segment header";
    return OpenResult::tooShort;
  }
  int const prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
  void* p = ::mmap(nullptr, bytes, prot, MAP_SHARED, f.fd, 0);
  if (p == MAP_FAILED) {
    error = sysError("cannot map", path, errno);
    return OpenResult::failed;
  }
  out = SharedSegment(static_cast<std::byte*>(p), bytes, true);
  out.identify(f.fd);
  return OpenResult::ok;
}

}  // namespace Calyx
