#include "agent/Privileges.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/capability.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace ModAgent {

namespace {

std::string sysError(std::string const& what, int err) {
  return what + ": " + std::strerror(err);
}

bool groupId(std::string const& name, gid_t& gid, std::string& error) {
  group g{};
  group* found = nullptr;
  std::vector<char> buffer(16384);
  if (getgrnam_r(name.c_str(), &g, buffer.data(), buffer.size(), &found) != 0 || !found) {
    error = "no group \"" + name + "\" on this host";
    return false;
  }
  gid = found->gr_gid;
  return true;
}

}  // namespace

bool stateDirAccessApply(std::string const& dir, std::string const& group, std::string& error) {
  gid_t gid = gid_t(-1);
  if (!group.empty() && !groupId(group, gid, error)) return false;
  int const dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dfd < 0) {
    error = sysError("cannot open the state directory " + dir, errno);
    return false;
  }
  struct stat st {};
  bool ok = fstat(dfd, &st) == 0;
  if (ok && gid != gid_t(-1) && st.st_gid != gid && fchown(dfd, uid_t(-1), gid) != 0) {
    error = sysError("cannot give the state directory " + dir + " to group " + group +
                         " (the agent's user must belong to it)",
                     errno);
    close(dfd);
    return false;
  }
  if (ok && fchmod(dfd, gid != gid_t(-1) ? 02750 : 0750) != 0) {
    error = sysError("cannot set the mode of the state directory " + dir, errno);
    close(dfd);
    return false;
  }
  // What an earlier run left: its files take the same rules as new ones.
  DIR* d = fdopendir(dfd);
  if (!d) {
    close(dfd);
    return true;
  }
  for (dirent* e = readdir(d); e; e = readdir(d)) {
    struct stat fs {};
    if (fstatat(dfd, e->d_name, &fs, AT_SYMLINK_NOFOLLOW) != 0 || fs.st_uid != geteuid()) continue;
    if (!S_ISREG(fs.st_mode) && !S_ISSOCK(fs.st_mode)) continue;
    if (gid != gid_t(-1) && fs.st_gid != gid)
      (void)fchownat(dfd, e->d_name, uid_t(-1), gid, AT_SYMLINK_NOFOLLOW);
    if (S_ISREG(fs.st_mode) && (fs.st_mode & 07777) != 0640) (void)fchmodat(dfd, e->d_name, 0640, 0);
  }
  closedir(d);
  return true;
}

std::string capabilitiesText() {
  cap_t caps = cap_get_proc();
  if (!caps) return "?";
  char* text = cap_to_text(caps, nullptr);
  std::string out = text ? text : "?";
  cap_free(text);
  cap_free(caps);
  return out;
}

std::string capabilitiesReduce(bool netRaw, std::string& error) {
  cap_t caps = cap_get_proc();
  if (!caps) {
    error = sysError("cannot read the process's capabilities", errno);
    return {};
  }
  cap_flag_value_t hasRaw = CAP_CLEAR, hasSetpcap = CAP_CLEAR;
  cap_get_flag(caps, CAP_NET_RAW, CAP_PERMITTED, &hasRaw);
  cap_get_flag(caps, CAP_SETPCAP, CAP_EFFECTIVE, &hasSetpcap);
  bool const keepRaw = netRaw && hasRaw == CAP_SET;
  std::string const before = capabilitiesText();
  // The bounding set first, while CAP_SETPCAP is still effective.
  if (hasSetpcap == CAP_SET) {
    for (cap_value_t c = 0; c <= CAP_LAST_CAP; ++c) {
      if (keepRaw && c == CAP_NET_RAW) continue;
      if (CAP_IS_SUPPORTED(c)) (void)cap_drop_bound(c);
    }
  }
  cap_clear(caps);
  if (keepRaw) {
    cap_value_t const raw[] = {CAP_NET_RAW};
    cap_set_flag(caps, CAP_EFFECTIVE, 1, raw, CAP_SET);
    cap_set_flag(caps, CAP_PERMITTED, 1, raw, CAP_SET);
  }
  int const failed = cap_set_proc(caps);
  int const err = errno;
  cap_free(caps);
  if (failed != 0) {
    error = sysError("cannot drop capabilities", err);
    return {};
  }
  (void)cap_reset_ambient();
  std::string const after = capabilitiesText();
  if (after == before) return {};
  return keepRaw ? "kept cap_net_raw for capture, dropped the others" : "dropped every capability";
}

}  // namespace ModAgent
