#pragma once
// Program: one of the build's programs (mod-agent, mod-gen, mod-collector) run by a test as its own process,
// with its standard output and error going to files the test reads. Found beside the tests in the build tree
// (ctest also puts them on PATH). The destructor kills a program still running.
//
//   Program agent("mod-agent", {"--config", file}, workDir);
//   agent.signal(SIGHUP);
//   auto status = agent.wait(10.0);          // the exit status, or nullopt after 10 s
//   ProgramResult r = programRun("mod-gen", {"--out", "x.pcap"});

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace Calyx::Test {

class Program {
 public:
  Program(std::string const& name, std::vector<std::string> args, std::string const& cwd = {});
  ~Program();
  Program(Program const&) = delete;
  Program& operator=(Program const&) = delete;

  pid_t pid() const { return pid_; }
  bool started() const { return pid_ > 0; }
  void signal(int signo) const;
  // The exit status (128 + the signal's number when a signal ended it), or nullopt if the program is still
  // running after timeoutSeconds.
  std::optional<int> wait(double timeoutSeconds);
  // Waits until the standard error holds text (true), or the time is up or the program ended (false).
  bool waitForErr(std::string const& text, double timeoutSeconds);
  std::string out() const;
  std::string err() const;

  // Where the program is: the build tree beside the tests, else its bare name (found on PATH).
  static std::string path(std::string const& name);

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::string outFile_;
  std::string errFile_;
};

struct ProgramResult {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs a program to its end (killed after timeoutSeconds).
ProgramResult programRun(std::string const& name, std::vector<std::string> args, std::string const& cwd = {},
                         double timeoutSeconds = 60);

}  // namespace Calyx::Test
