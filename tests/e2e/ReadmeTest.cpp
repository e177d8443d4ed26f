// The README as a new user follows it: every "$ " line of its code blocks run in order in one bash, in a
// directory laid out like the repository (examples/ and contrib/), with this build's programs on PATH. What a
// command prints must have every line the README shows after it, numbers aside (pids, times and ports differ
// from run to run) and spaces aside (table columns widen with the numbers). A command shown failing must
// fail, any other must succeed.
//
// Two things are replaced so that runs on one host cannot meet: the session's state directory and the report
// port are the test's own, in the commands and in the copies of the example files.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "testkit/TempStateDir.h"
#include "tests/support/Program.h"

namespace {

namespace fs = std::filesystem;

struct Command {
  std::string line;
  std::vector<std::string> shown;  // the output lines the README shows
  size_t readmeLine = 0;
};

std::vector<Command> readmeCommands(std::string const& path) {
  std::ifstream in(path);
  std::vector<Command> out;
  bool fenced = false;
  size_t number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    if (line.rfind("```", 0) == 0) {
      fenced = !fenced;
      continue;
    }
    if (!fenced) continue;
    if (line.rfind("$ ", 0) == 0) {
      out.push_back({line.substr(2), {}, number});
    } else if (!out.empty() && out.back().readmeLine + out.back().shown.size() + 1 == number) {
      out.back().shown.push_back(line);
    }
  }
  return out;
}

// Digits runs to "#", blank runs to one blank, no blanks at the ends.
std::string normalized(std::string const& line) {
  static std::regex const digits("[0-9]+"), blanks("[ \t]+");
  std::string s = std::regex_replace(std::regex_replace(line, digits, "#"), blanks, " ");
  s.erase(0, s.find_first_not_of(' '));
  s.erase(s.find_last_not_of(' ') + 1);
  return s;
}

std::string replacedAll(std::string text, std::string const& from, std::string const& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

uint16_t freeUdpPort() {
  int const fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

TEST(ReadmeTest, EveryCommandShownRunsAsShown) {
  if (Calyx::Test::programRun("tshark", {"--version"}).status != 0) GTEST_SKIP() << "tshark is not installed";
  std::string const source = CALYX_SOURCE_DIR;
  auto const commands = readmeCommands(source + "/README.md");
  ASSERT_GE(commands.size(), 20u);

  char dir[] = "/tmp/readme-XXXXXX";
  ASSERT_TRUE(mkdtemp(dir));
  std::string const work = dir;
  Calyx::Test::TempStateDir state;
  std::string const port = ":" + std::to_string(freeUdpPort());
  auto const ours = [&](std::string text) {
    return replacedAll(replacedAll(text, "/dev/shm/mod-session", state.path()), ":6343", port);
  };
  fs::create_directory(work + "/examples");
  for (auto const& f : fs::directory_iterator(source + "/examples")) {
    std::ifstream in(f.path());
    std::stringstream text;
    text << in.rdbuf();
    std::ofstream(work + "/examples/" + f.path().filename().string()) << ours(text.str());
  }
  fs::create_directory_symlink(source + "/contrib", work + "/contrib");

  // Each command between markers that carry its exit status; stderr with stdout, as a terminal shows them.
  std::ostringstream script;
  script << "exec 2>&1\ncd '" << work << "'\n";
  for (size_t i = 0; i < commands.size(); ++i) {
    script << "echo '@@@ begin " << i << "'\n"
           << ours(commands[i].line) << "\necho \"@@@ end " << i << " $?\"\n";
  }
  std::string const build =
      fs::path(Calyx::Test::Program::path("modctl")).parent_path().parent_path().string();
  std::string const path = build + "/tools:" + build + "/agent:" + getenv("PATH");
  auto const run = Calyx::Test::programRun(
      "env", {"HOME=" + work, "PATH=" + path, "bash", "--norc", "--noprofile", "-c", script.str()}, work,
      120);
  ASSERT_EQ(run.status, 0) << run.out;

  for (size_t i = 0; i < commands.size(); ++i) {
    auto const& c = commands[i];
    std::string const begin = "@@@ begin " + std::to_string(i) + "\n";
    std::string const endMark = "@@@ end " + std::to_string(i) + " ";
    size_t const from = run.out.find(begin);
    size_t const to = run.out.find(endMark);
    ASSERT_TRUE(from != std::string::npos && to != std::string::npos) << "README line " << c.readmeLine;
    std::string const printed = run.out.substr(from + begin.size(), to - from - begin.size());
    int const status = std::stoi(run.out.substr(to + endMark.size()));
    bool const shownFailing = !c.shown.empty() && c.shown.front().rfind("modctl", 0) == 0;
    EXPECT_EQ(status != 0, shownFailing) << "README line " << c.readmeLine << ": $ " << c.line << "\n"
                                         << printed;
    std::vector<std::string> got;
    std::istringstream is(printed);
    for (std::string l; std::getline(is, l);) got.push_back(normalized(ours(l)));
    for (auto const& shown : c.shown) {
      std::string const want = normalized(ours(shown));
      EXPECT_NE(std::find(got.begin(), got.end(), want), got.end())
          << "README line " << c.readmeLine << ": $ " << c.line << "\nshows: " << shown << "\nprinted:\n"
          << printed;
    }
  }
  fs::remove_all(work);
}

}  // namespace
