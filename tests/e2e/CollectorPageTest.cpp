// The collector's page in a real browser: headless Chromium (Debian's chromium) loads it from a running
// mod-collector, lets its script fetch the API and draw, and the test reads the rendered document: the open
// lives, the top tables and the timeline must show what the collector stored. A screenshot is kept beside the
// tests (collector-page.png in the build folder). Skipped, saying so, where Chromium is not installed.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "tests/support/CollectorProcess.h"
#include "tests/support/ReportDatagrams.h"

using Calyx::Test::CollectorProcess;
using Calyx::Test::programRun;

namespace {

constexpr char const* kChromium = "/usr/bin/chromium";

// The part of the document from the element with this id to the end of its section.
std::string section(std::string const& dom, std::string const& id) {
  size_t const at = dom.find("id=\"" + id + "\"");
  if (at == std::string::npos) return {};
  return dom.substr(at, dom.find("</section>", at) - at);
}

// The rows of a table as text: cells joined by " | ", the page's own markup left out.
std::vector<std::string> rows(std::string const& html) {
  std::vector<std::string> out;
  std::regex const row("<tr>(.*?)</tr>"), cell("<t[dh][^>]*>(.*?)</t[dh]>");
  for (auto r = std::sregex_iterator(html.begin(), html.end(), row); r != std::sregex_iterator(); ++r) {
    std::string const inner = (*r)[1];
    std::string text;
    for (auto c = std::sregex_iterator(inner.begin(), inner.end(), cell); c != std::sregex_iterator(); ++c) {
      text += (text.empty() ? "" : " | ") + std::regex_replace((*c)[1].str(), std::regex("<[^>]*>"), "");
    }
    out.push_back(text);
  }
  return out;
}

class CollectorPageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kChromium, X_OK) != 0)
      GTEST_SKIP() << kChromium << " is not installed (scripts/install-deps installs it)";
    char d[] = "/tmp/mod-page-XXXXXX";
    ASSERT_TRUE(mkdtemp(d));
    work_ = d;
  }
  void TearDown() override {
    if (!work_.empty()) std::filesystem::remove_all(work_);
  }
  // Chromium with a profile of its own and nothing that reaches beyond this machine.
  Calyx::Test::ProgramResult chromium(std::vector<std::string> args) {
    std::vector<std::string> all = {"--headless",
                                    "--no-sandbox",
                                    "--disable-gpu",
                                    "--disable-quic",
                                    "--no-first-run",
                                    "--disable-background-networking",
                                    "--disable-component-update",
                                    "--disable-sync",
                                    "--user-data-dir=" + work_ + "/profile",
                                    "--virtual-time-budget=5000"};
    all.insert(all.end(), args.begin(), args.end());
    return programRun(kChromium, all, work_, 120);
  }
  std::string work_;
};

TEST_F(CollectorPageTest, ThePageShowsOpenLivesTopTablesAndTheTimelineOfWhatWasStored) {
  std::string const db = work_ + "/drops.db";
  CollectorProcess c({"--db", db, "--quiet", "--http", "127.0.0.1:0"});
  ASSERT_TRUE(c.started() && c.httpPort()) << c.err();
  // Three closed lives of one flow, two open lives of two others.
  using Calyx::Test::droppedSample;
  auto const steady = droppedSample("10.0.0.1", "10.0.0.2", 6, 1234, 80);
  auto const dns = droppedSample("2001:db8::1", "2001:db8::2", 17, 5353, 53);
  auto const web = droppedSample("10.0.0.7", "10.0.0.8", 6, 4321, 443);
  std::vector<Calyx::Test::Bytes> datagrams;
  for (uint64_t ts : {1, 2, 3}) {
    datagrams.push_back(Calyx::Test::reportDatagram(0, ts, {0, 0, 0, 0x10}, steady));
    datagrams.push_back(Calyx::Test::reportDatagram(1, ts, {0, 0, 0, 0x10}, steady));
  }
  datagrams.push_back(Calyx::Test::reportDatagram(0, 4, {0, 0, 0, 0x20}, dns));
  datagrams.push_back(Calyx::Test::reportDatagram(0, 5, {0, 0, 0, 0x20}, web));
  int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(c.port());
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (auto const& d : datagrams)
    sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  close(fd);
  for (int i = 0; i < 250; ++i) {
    auto const q = programRun("mod-collector", {"query", "--db", db, "--json", "lives"});
    if (q.status == 0 && nlohmann::json::parse(q.out)["lives"].size() == 5) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }

  std::string const url = "http://127.0.0.1:" + std::to_string(c.httpPort()) + "/";
  auto const dump = chromium({"--dump-dom", url});
  ASSERT_EQ(dump.status, 0) << dump.err;
  std::string const& dom = dump.out;

  EXPECT_NE(section(dom, "status").find("stored 8 (0 already stored)"), std::string::npos)
      << section(dom, "status");
  std::vector<std::string> open = rows(section(dom, "open"));
  ASSERT_EQ(open.size(), 3u) << section(dom, "open");  // the heading and two lives, the newest first
  EXPECT_NE(
      open[1].find("127.0.0.1 | TCP 10.0.0.7:4321 -&gt; 10.0.0.8:443 | 0x00000000000000000000000000000020"),
      std::string::npos)
      << open[1];
  EXPECT_NE(open[2].find("UDP [2001:db8::1]:5353 -&gt; [2001:db8::2]:53"), std::string::npos) << open[2];

  auto flows = rows(section(dom, "top-flows"));
  ASSERT_EQ(flows.size(), 4u);
  EXPECT_EQ(flows[0], "flow | lives | reports | ");
  EXPECT_EQ(flows[1], "TCP 10.0.0.1:1234 -&gt; 10.0.0.2:80 | 3 | 6 | ");
  auto reasons = rows(section(dom, "top-reasons"));
  ASSERT_EQ(reasons.size(), 3u);
  EXPECT_EQ(reasons[1], "0x00000000000000000000000000000010 | 3 | 6 | ");
  EXPECT_EQ(reasons[2], "0x00000000000000000000000000000020 | 2 | 2 | ");
  EXPECT_EQ(rows(section(dom, "top-sources")).at(1), "127.0.0.1 | 5 | 8 | ");
  auto protocols = rows(section(dom, "top-protocols"));
  ASSERT_EQ(protocols.size(), 3u);
  EXPECT_EQ(protocols[1], "TCP | 4 | 7 | ");
  EXPECT_EQ(protocols[2], "UDP | 1 | 1 | ");

  std::string const timeline = section(dom, "timeline");
  std::regex const bar(R"re(data-lives="(\d+)")re");
  int bars = 0, lives = 0;
  for (auto b = std::sregex_iterator(timeline.begin(), timeline.end(), bar); b != std::sregex_iterator();
       ++b) {
    ++bars;
    lives += std::stoi((*b)[1]);
  }
  EXPECT_GE(bars, 60);  // one hour by the minute
  EXPECT_EQ(lives, 5);
  EXPECT_NE(timeline.find("5 in the window"), std::string::npos) << timeline;

  std::string const build = std::getenv("CALYX_BUILD_DIR") ? std::getenv("CALYX_BUILD_DIR") : work_;
  std::string const png = build + "/collector-page.png";
  auto const shot = chromium({"--screenshot=" + png, "--window-size=1280,1100", "--hide-scrollbars", url});
  ASSERT_EQ(shot.status, 0) << shot.err;
  ASSERT_TRUE(std::filesystem::exists(png)) << shot.err;
  EXPECT_GT(std::filesystem::file_size(png), 10000u);
  std::cout << "screenshot: " << png << std::endl;
}

}  // namespace
