#include "agent/StateDirTrust.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace ModAgent {

namespace {

namespace fs = std::filesystem;

std::string userName(uid_t uid) {
  passwd pw{};
  passwd* found = nullptr;
  char buffer[1024];
  if (getpwuid_r(uid, &pw, buffer, sizeof buffer, &found) == 0 && found) return found->pw_name;
  return "uid " + std::to_string(uid);
}

std::string modeText(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", unsigned(mode & 07777));
  return text;
}

// The refusal: what is wrong with which path, and what to do about it.
std::string refuse(std::string const& dir, std::string const& path, std::string const& fault,
                   std::string const& fix) {
  return "refusing to use the state directory " + dir + ": " + (path == dir ? std::string("it") : path) +
         " " + fault + "; " + fix;
}

// Owner and modes of one entry of (or the) state directory.
std::string entryCheck(std::string const& dir, std::string const& path, struct stat const& st) {
  uid_t const me = geteuid();
  bool const self = path == dir;
  if (S_ISLNK(st.st_mode)) {
    return refuse(dir, path, "is a symlink",
                  self ? "give the real directory as state_dir (or --state-dir)"
                       : "remove it (rm " + path + "); mod-agent makes its files itself");
  }
  if (self && !S_ISDIR(st.st_mode)) {
    return refuse(dir, path, "is not a directory", "remove it, or choose another state_dir");
  }
  if (st.st_uid != me) {
    return refuse(dir, path, "is owned by " + userName(st.st_uid) + ", not by " + userName(me),
                  "whoever owns it decides what mod-agent reads: remove it (rm -r " + path + ")" +
                      (self ? " and let mod-agent make it" : "") + ", or chown " + userName(me) + " " + path);
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !(S_ISSOCK(st.st_mode) && !self)) {
    return refuse(dir, path,
                  "is writable by " + std::string((st.st_mode & S_IWOTH) ? "others" : "its group") +
                      " (mode " + modeText(st.st_mode) + ")",
                  "chmod go-w " + path);
  }
  return {};
}

// The directories above dir, from its parent up to /.
std::string parentsCheck(std::string const& dir) {
  std::error_code ec;
  fs::path const parent = fs::canonical(fs::absolute(fs::path(dir), ec).parent_path(), ec);
  if (ec) return "cannot resolve the directory above the state directory " + dir + ": " + ec.message();
  uid_t const me = geteuid();
  for (fs::path p = parent;; p = p.parent_path()) {
    struct stat st {};
    if (::lstat(p.c_str(), &st) != 0) return "cannot stat " + p.string() + ": " + std::strerror(errno);
    if (st.st_uid != 0 && st.st_uid != me) {
      return refuse(
          dir, p.string(),
          "(above it) is owned by " + userName(st.st_uid) + ", who could replace the state directory",
          "choose a state directory whose parents only root or " + userName(me) + " own");
    }
    bool const sticky = (st.st_mode & S_ISVTX) != 0;
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !sticky) {
      return refuse(dir, p.string(),
                    "(above it) is writable by others without the sticky bit (mode " + modeText(st.st_mode) +
                        "), so anyone could replace the state directory",
                    "chmod go-w " + p.string() + " (or chmod +t), or choose another state directory");
    }
    if (p == p.root_path() || p.empty()) return {};
  }
}

std::string make(std::string const& dir) {
  std::error_code ec;
  fs::path const parent = fs::absolute(fs::path(dir), ec).parent_path();
  if (!ec) fs::create_directories(parent, ec);
  if (ec) return "cannot make the state directory " + dir + ": " + ec.message();
  if (::mkdir(dir.c_str(), 0750) != 0 && errno != EEXIST)
    return "cannot make the state directory " + dir + ": " + std::strerror(errno);
  // The mode whatever the umask: the group must reach the control socket.
  int const fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return {};  // said by the checks that follow
  struct stat st {};
  if (::fstat(fd, &st) == 0 && st.st_uid == geteuid() && (st.st_mode & 07777) != 0750) ::fchmod(fd, 0750);
  ::close(fd);
  return {};
}

}  // namespace

std::string stateDirTrust(std::string const& dir) {
  if (dir.empty()) return "the state directory is empty: give one as state_dir (or --state-dir)";
  struct stat st {};
  if (::lstat(dir.c_str(), &st) != 0) {
    if (errno != ENOENT) return "cannot stat the state directory " + dir + ": " + std::strerror(errno);
    if (auto const error = make(dir); !error.empty()) return error;
    if (::lstat(dir.c_str(), &st) != 0)
      return "cannot stat the state directory " + dir + ": " + std::strerror(errno);
  }
  if (auto const error = parentsCheck(dir); !error.empty()) return error;
  if (auto const error = entryCheck(dir, dir, st); !error.empty()) return error;
  std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir.c_str()), ::closedir);
  if (!d) return "cannot read the state directory " + dir + ": " + std::strerror(errno);
  std::string const base = dir.back() == '/' ? dir : dir + "/";
  while (dirent const* e = ::readdir(d.get())) {
    std::string const name = e->d_name;
    if (name == "." || name == "..") continue;
    std::string const path = base + name;
    struct stat est {};
    if (::lstat(path.c_str(), &est) != 0) continue;  // gone meanwhile
    if (auto const error = entryCheck(dir, path, est); !error.empty()) return error;
  }
  return {};
}

}  // namespace ModAgent
