#include "tests/support/Program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace Calyx::Test {

namespace {

std::string slurp(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

int counter = 0;

}  // namespace

std::string Program::path(std::string const& name) {
  std::filesystem::path const build =
      std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
  for (char const* dir : {"tools", "agent"}) {
    if (std::filesystem::exists(build / dir / name)) return (build / dir / name).string();
  }
  return name;
}

Program::Program(std::string const& name, std::vector<std::string> args, std::string const& cwd) {
  std::string const base = std::filesystem::temp_directory_path().string() + "/program-" +
                           std::to_string(getpid()) + "-" + std::to_string(counter++);
  outFile_ = base + ".out";
  errFile_ = base + ".err";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, errFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
  std::string const program = path(name);
  args.insert(args.begin(), program);
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  if (posix_spawnp(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
}

Program::~Program() {
  if (pid_ > 0 && !status_) {
    kill(pid_, SIGKILL);
    wait(10);
  }
  std::filesystem::remove(outFile_);
  std::filesystem::remove(errFile_);
}

void Program::signal(int signo) const {
  if (pid_ > 0 && !status_) kill(pid_, signo);
}

std::optional<int> Program::wait(double timeoutSeconds) {
  if (status_ || pid_ <= 0) return status_;
  auto const until = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  for (;;) {
    int raw = 0;
    if (waitpid(pid_, &raw, WNOHANG) == pid_) {
      status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
      return status_;
    }
    if (std::chrono::steady_clock::now() >= until) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

bool Program::waitForErr(std::string const& text, double timeoutSeconds) {
  auto const until = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  while (std::chrono::steady_clock::now() < until) {
    if (err().find(text) != std::string::npos) return true;
    if (wait(0)) return err().find(text) != std::string::npos;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

std::string Program::out() const {
  return slurp(outFile_);
}

std::string Program::err() const {
  return slurp(errFile_);
}

ProgramResult programRun(std::string const& name, std::vector<std::string> args, std::string const& cwd,
                         double timeoutSeconds) {
  Program p(name, std::move(args), cwd);
  ProgramResult r;
  auto const status = p.wait(timeoutSeconds);
  r.status = status ? *status : -1;
  r.out = p.out();
  r.err = p.err();
  return r;
}

}  // namespace Calyx::Test
