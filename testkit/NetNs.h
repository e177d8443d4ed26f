#pragma once
// NetNs: a throw-away network namespace holding a veth pair, for tests and benchmarks that need real
// interfaces.
//
//   if (auto why = NetNs::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
//   NetNs ns;                      // "calyx-<pid>-<n>" with veth ends a() and b(), both up
//   auto pam = ns.inside([&] { return make<LivePam>(...); });  // sockets opened inside stay in the namespace
//   std::system((ns.exec() + "mod-gen --interface " + ns.a() + ...).c_str());
//
// The namespace is deleted in the destructor, which also runs when a test assertion fails; namespaces left
// behind by a process that died are deleted by the next NetNs made. Needs root and the `ip` tool; header-only
// so that benchmark programs can use it too.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>

namespace Calyx {

class NetNs {
 public:
  static std::string unavailableReason() {
    if (geteuid() != 0) return "needs root to make a network namespace";
    if (std::system("ip netns list >/dev/null 2>&1") != 0) return "`ip netns` is not available";
    return {};
  }

  NetNs() {
    static int made = 0;
    name_ = "calyx-" + std::to_string(getpid()) + "-" + std::to_string(made++);
    removeAbandoned();
    ok_ = sh("ip netns add " + name_) && sh(exec() + "ip link add " + a() + " type veth peer name " + b()) &&
          sh(exec() + "ip link set " + a() + " up") && sh(exec() + "ip link set " + b() + " up") &&
          sh(exec() + "ip link set lo up");
  }
  NetNs(NetNs const&) = delete;
  NetNs& operator=(NetNs const&) = delete;
  ~NetNs() { sh("ip netns delete " + name_); }

  bool ok() const { return ok_; }
  std::string const& name() const { return name_; }
  std::string a() const { return "modveth0"; }
  std::string b() const { return "modveth1"; }
  // Prefix that runs a shell command inside the namespace.
  std::string exec() const { return "ip netns exec " + name_ + " "; }
  // Runs a shell command inside the namespace; true when it exits with 0.
  bool run(std::string const& command) const { return sh(exec() + command); }

  // Calls fn with the calling thread in the namespace, then moves the thread back.
  template <class F>
  auto inside(F&& fn) const {
    int const home = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    int const there = ::open(("/var/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
    setns(there, CLONE_NEWNET);
    struct Back {
      int home, there;
      ~Back() {
        setns(home, CLONE_NEWNET);
        ::close(home);
        ::close(there);
      }
    } back{home, there};
    return std::forward<F>(fn)();
  }

 private:
  static bool sh(std::string const& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
  }

  // Deletes "calyx-<pid>-<n>" namespaces whose process is gone.
  static void removeAbandoned() {
    FILE* list = popen("ip netns list 2>/dev/null", "r");
    if (!list) return;
    char line[256];
    while (fgets(line, sizeof line, list)) {
      std::istringstream words(line);
      std::string ns;
      words >> ns;
      if (ns.rfind("calyx-", 0) != 0) continue;
      long const pid = std::strtol(ns.c_str() + 6, nullptr, 10);
      if (pid > 0 && pid != getpid() && kill(pid_t(pid), 0) != 0) sh("ip netns delete " + ns);
    }
    pclose(list);
  }

  std::string name_;
  bool ok_ = false;
};

}  // namespace Calyx
