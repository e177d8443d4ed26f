#pragma once
// A PostgreSQL server of the test's own: initdb into a temporary directory, then postgres on a free loopback
// port (its socket in the same directory), with fsync off since nothing of it outlives the test. The server
// refuses to run as root, so a test running as root starts it as `nobody`. ok() says whether it runs; why()
// says what went wrong (no server installed, initdb failed, the server did not answer), with the end of its
// log.
//
//   Calyx::Test::TempPostgres pg;
//   if (!pg.ok()) GTEST_SKIP() << pg.why();
//   pg.createDatabase("drops");
//   std::string url = pg.url("drops");     // postgresql://mod@127.0.0.1:PORT/drops
//   pg.stop(); pg.start();                 // a restart on the same port

#include <fcntl.h>
#include <grp.h>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace Calyx::Test {

class TempPostgres {
 public:
  TempPostgres() {
    bin_ = serverBinDir();
    if (bin_.empty()) {
      why_ =
          "no PostgreSQL server installed (/usr/lib/postgresql/*/bin/postgres; scripts/install-deps installs "
          "it)";
      return;
    }
    char dir[] = "/tmp/mod-pg-XXXXXX";
    if (!mkdtemp(dir)) {
      why_ = "cannot make a temporary directory";
      return;
    }
    dir_ = dir;
    if (geteuid() == 0) {
      passwd const* nobody = getpwnam("nobody");
      if (!nobody) {
        why_ = "running as root and there is no user nobody to run the server as";
        return;
      }
      uid_ = nobody->pw_uid;
      gid_ = nobody->pw_gid;
      if (chown(dir, uid_, gid_) != 0) {
        why_ = "cannot hand " + dir_ + " to nobody";
        return;
      }
    }
    port_ = freePort();
    int const rc = runAndWait({bin_ + "/initdb", "-D", dir_ + "/data", "-U", "mod", "-A", "trust", "-E",
                               "UTF8", "--locale=C", "--no-sync"});
    if (rc != 0) {
      why_ = "initdb failed (exit " + std::to_string(rc) + "): " + logTail();
      return;
    }
    start();
  }
  ~TempPostgres() {
    stop();
    if (!dir_.empty()) {
      std::error_code ignored;
      std::filesystem::remove_all(dir_, ignored);
    }
  }
  TempPostgres(TempPostgres const&) = delete;
  TempPostgres& operator=(TempPostgres const&) = delete;

  bool ok() const { return pid_ > 0; }
  std::string const& why() const { return why_; }
  int port() const { return port_; }
  std::string url(std::string const& db = "postgres") const {
    return "postgresql://mod@127.0.0.1:" + std::to_string(port_) + "/" + db;
  }

  bool createDatabase(std::string const& name) {
    PGconn* c = PQconnectdb(url().c_str());
    PGresult* r = PQstatus(c) == CONNECTION_OK ? PQexec(c, ("CREATE DATABASE " + name).c_str()) : nullptr;
    bool const ok = r && PQresultStatus(r) == PGRES_COMMAND_OK;
    PQclear(r);
    PQfinish(c);
    return ok;
  }

  // Starts the server (again) on the same port and waits until it answers.
  bool start() {
    if (pid_ > 0) return true;
    pid_ = spawn({bin_ + "/postgres", "-D", dir_ + "/data", "-k", dir_, "-p", std::to_string(port_), "-c",
                  "listen_addresses=127.0.0.1", "-c", "fsync=off", "-c", "full_page_writes=off", "-c",
                  "synchronous_commit=off"});
    auto const until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < until) {
      if (PQping(url().c_str()) == PQPING_OK) return true;
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        why_ = "the server ended at start: " + logTail();
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    stop();
    why_ = "the server did not answer within 60 s: " + logTail();
    return false;
  }

  // A fast shutdown: clients are cut off, the server ends.
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGINT);
    auto const until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) != pid_) {
      if (std::chrono::steady_clock::now() > until) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    pid_ = -1;
  }

 private:
  static std::string serverBinDir() {
    std::string best;
    std::error_code ec;
    for (auto const& e : std::filesystem::directory_iterator("/usr/lib/postgresql", ec)) {
      std::string const bin = e.path().string() + "/bin";
      if (!std::filesystem::exists(bin + "/postgres")) continue;
      if (best.empty() || std::stoi(e.path().filename().string()) >
                              std::stoi(std::filesystem::path(best).parent_path().filename().string())) {
        best = bin;
      }
    }
    return best;
  }

  static int freePort() {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
  }

  // Runs a program as the server's user, its output appended to the log. Everything the child needs is made
  // before fork: the test process may have threads.
  pid_t spawn(std::vector<std::string> args) const {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::string const log = dir_ + "/server.log";
    pid_t const pid = fork();
    if (pid != 0) return pid;
    int const fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
    }
    int const null = open("/dev/null", O_RDONLY);
    if (null >= 0) dup2(null, 0);
    if (uid_ != 0 && (setgroups(0, nullptr) != 0 || setgid(gid_) != 0 || setuid(uid_) != 0)) _exit(126);
    if (chdir(dir_.c_str()) != 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }

  int runAndWait(std::vector<std::string> args) const {
    pid_t const pid = spawn(std::move(args));
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  std::string logTail() const {
    std::ifstream in(dir_ + "/server.log");
    std::stringstream s;
    s << in.rdbuf();
    std::string text = s.str();
    return text.size() > 600 ? "..." + text.substr(text.size() - 600) : text;
  }

  std::string bin_;
  std::string dir_;
  std::string why_;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  int port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace Calyx::Test
