#pragma once
// mod-collector run by a test as its own process, listening on one loopback port it picks itself: the port
// (and its page's port with --http) read from the lines it prints on stderr at start.

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/Program.h"

namespace Calyx::Test {

class CollectorProcess {
 public:
  // Starts `mod-collector --listen 127.0.0.1:0` with the other arguments.
  explicit CollectorProcess(std::vector<std::string> args) : program_("mod-collector", withListen(args)) {
    bool const http = std::find(args.begin(), args.end(), "--http") != args.end();
    if (!program_.waitForErr(http ? "http on " : "listening on ", 30)) return;
    std::string const err = program_.err();
    std::regex const line(R"((listening|http) on (\S+):(\d+))");
    for (auto it = std::sregex_iterator(err.begin(), err.end(), line); it != std::sregex_iterator(); ++it) {
      auto const port = static_cast<uint16_t>(std::stoi((*it)[3]));
      ((*it)[1] == "http" ? httpPort_ : port_) = port;
    }
  }

  bool started() const { return port_ != 0; }
  uint16_t port() const { return port_; }
  uint16_t httpPort() const { return httpPort_; }
  Program& program() { return program_; }
  std::string err() const { return program_.err(); }

 private:
  static std::vector<std::string> withListen(std::vector<std::string> args) {
    args.insert(args.begin(), {"--listen", "127.0.0.1:0"});
    return args;
  }

  Program program_;
  uint16_t port_ = 0;
  uint16_t httpPort_ = 0;
};

}  // namespace Calyx::Test
