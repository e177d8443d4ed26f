#include "platform/shm/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/shm/ScopedFd.h"

namespace Calyx {

namespace {

SysError failure(char const* call, int code, std::string context) {
  return SysError{code, std::move(context), call};
}

}  // namespace

MappedFile::MappedFile(MappedFile&& o) noexcept
    : base_(std::exchange(o.base_, nullptr)),
      bytes_(std::exchange(o.bytes_, 0)),
      isFile_(o.isFile_),
      device_(o.device_),
      inode_(o.inode_) {}

MappedFile& MappedFile::operator=(MappedFile&& o) noexcept {
  if (this == &o) return *this;
  unmap();
  base_ = std::exchange(o.base_, nullptr);
  bytes_ = std::exchange(o.bytes_, 0);
  isFile_ = o.isFile_;
  device_ = o.device_;
  inode_ = o.inode_;
  return *this;
}

MappedFile::~MappedFile() {
  unmap();
}

void MappedFile::unmap() {
  if (base_) ::munmap(base_, bytes_);
  base_ = nullptr;
  bytes_ = 0;
}

void MappedFile::identify(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return;
  device_ = st.st_dev;
  inode_ = st.st_ino;
}

bool MappedFile::isFileAt(std::string const& path) const {
  struct stat st {};
  if (!isFile_ || ::lstat(path.c_str(), &st) != 0) return false;
  return st.st_dev == device_ && st.st_ino == inode_;
}

SysResult<MappedFile> MappedFile::create(std::string const& path, size_t bytes) {
  ScopedFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0640));
  if (!fd.valid()) return failure("open", errno, "cannot create " + path);
  char const* call = "fallocate";
  int err = ::posix_fallocate(fd.get(), 0, static_cast<off_t>(bytes));
  // Some file systems refuse to reserve; a sized file is the best they offer.
  if (err == EOPNOTSUPP || err == EINVAL) {
    call = "ftruncate";
    err = ::ftruncate(fd.get(), static_cast<off_t>(bytes)) == 0 ? 0 : errno;
  }
  if (err != 0) {
    ::unlink(path.c_str());
    return failure(call, err, "cannot reserve " + std::to_string(bytes) + " bytes for " + path);
  }
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (p == MAP_FAILED) {
    int const mapErr = errno;
    ::unlink(path.c_str());
    return failure("mmap", mapErr, "cannot map " + path);
  }
  MappedFile f(static_cast<std::byte*>(p), bytes, true);
  f.identify(fd.get());
  return f;
}

SysResult<MappedFile> MappedFile::createPrivate(size_t bytes) {
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return failure("mmap", errno, "cannot map private memory");
  return MappedFile(static_cast<std::byte*>(p), bytes, false);
}

SysResult<MappedFile> MappedFile::open(std::string const& path, bool writable, size_t minBytes) {
  ScopedFd fd(::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW));
  if (!fd.valid()) return failure("open", errno, "cannot open " + path);
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return failure("fstat", errno, "cannot stat " + path);
  auto const bytes = static_cast<size_t>(st.st_size);
  if (bytes < minBytes || bytes == 0) {
    MappedFile shortFile;
    shortFile.bytes_ = bytes;
    return shortFile;
  }
  int const prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
  void* p = ::mmap(nullptr, bytes, prot, MAP_SHARED, fd.get(), 0);
  if (p == MAP_FAILED) return failure("mmap", errno, "cannot map " + path);
  MappedFile f(static_cast<std::byte*>(p), bytes, true);
  f.identify(fd.get());
  return f;
}

SysResult<void> MappedFile::makeDirectory(std::string const& dir) {
  if (::mkdir(dir.c_str(), 0750) == 0 || errno == EEXIST) return {};
  return failure("mkdir", errno, "cannot make state directory " + dir);
}

SysResult<void> MappedFile::replaceFile(std::string const& from, std::string const& to) {
  if (::rename(from.c_str(), to.c_str()) == 0) return {};
  int const err = errno;
  ::unlink(from.c_str());
  return failure("rename", err, "cannot rename " + from + " to " + to);
}

}  // namespace Calyx
