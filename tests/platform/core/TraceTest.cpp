#include "platform/core/Trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "platform/core/TraceSink.h"

namespace Calyx {
namespace {

class TraceLevels : public ::testing::Test {
 protected:
  TraceLevels() { registry.sinkIs(sink); }
  TraceRegistry registry;
  std::shared_ptr<MemoryTraceSink> sink = std::make_shared<MemoryTraceSink>();
  TraceHandle manager = registry.handle("MOD-Manager");
};

TEST_F(TraceLevels, LineIsComposedOnlyWhenItsLevelIsOn) {
  int evaluated = 0;
  auto sideEffect = [&] { return ++evaluated; };
  CALYX_TRACE(manager, 5, "Storing report: size = " << sideEffect() << ".");
  EXPECT_EQ(evaluated, 0);
  EXPECT_TRUE(sink->lines().empty());

  manager.levelIs(5, true);
  CALYX_TRACE(manager, 5, "Storing report: size = " << sideEffect() << ".");
  EXPECT_EQ(evaluated, 1);
  ASSERT_EQ(sink->entries().size(), 1u);
  EXPECT_EQ(sink->entries()[0].channel, "MOD-Manager");
  EXPECT_EQ(sink->entries()[0].level, 5);
  EXPECT_EQ(sink->entries()[0].line, "Storing report: size = 1.");
}

TEST_F(TraceLevels, EachLevelIsSwitchedByItself) {
  manager.levelIs(3, true);
  EXPECT_TRUE(manager.isEnabled(3));
  EXPECT_FALSE(manager.isEnabled(2));
  EXPECT_FALSE(manager.isEnabled(4));
  manager.levelIs(4, true);
  manager.levelIs(3, false);
  EXPECT_EQ(manager.levels(), 1u << 4);

  // Levels outside 0..8 are never on, whatever the mask; a direct write at an off level is dropped.
  manager.levelsIs(0xFFFF);
  EXPECT_EQ(manager.levels(), kTraceLevelsAll);
  EXPECT_FALSE(manager.isEnabled(-1));
  EXPECT_FALSE(manager.isEnabled(9));
  manager.levelIs(9, true);
  manager.levelsIs(0);
  manager.write(2, "dropped");
  EXPECT_TRUE(sink->lines().empty());
}

TEST_F(TraceLevels, HandlesOfOneNameShareTheirChannel) {
  TraceHandle again = registry.handle("MOD-Manager");
  again.levelIs(1, true);
  EXPECT_TRUE(manager.isEnabled(1));
  registry.handle("MOD-Adapter");
  EXPECT_EQ(registry.names(), (std::vector<std::string>{"MOD-Adapter", "MOD-Manager"}));

  // The name-only constructor goes to the process-wide registry.
  TraceHandle global("TraceTest-global");
  TraceRegistry::instance().handle("TraceTest-global").levelIs(2, true);
  EXPECT_TRUE(global.isEnabled(2));
  EXPECT_FALSE(manager.isEnabled(2));
}

TEST_F(TraceLevels, LevelsApplySetsNamedChannelsAndTheRest) {
  TraceHandle receiver = registry.handle("MOD-Receiver");
  EXPECT_EQ(registry.levelsApply("MOD-Manager=0-5,MOD-Sender=1,3,*=0-1"), "");
  EXPECT_EQ(manager.levels(), 0x3F);
  EXPECT_EQ(registry.handle("MOD-Sender").levels(), (1u << 1) | (1u << 3));
  EXPECT_EQ(receiver.levels(), 0x3);
  EXPECT_EQ(registry.handle("MOD-Dispatcher").levels(), 0x3);  // made after the setting

  EXPECT_EQ(registry.levelsApply(" MOD-Manager = , MOD-Receiver=8 "), "");
  EXPECT_EQ(manager.levels(), 0);
  EXPECT_EQ(receiver.levels(), 1u << 8);
}

TEST_F(TraceLevels, LevelsApplyRejectsBadInputNamingItAndChangesNothing) {
  struct Case {
    std::string setting;
    std::string named;
  };
  // Each setting starts well, so a half-applied setting would show in the levels.
  for (auto const& bad : std::vector<Case>{{"MOD-Manager=7,MOD-Sender=9", "\"9\""},
                                           {"MOD-Manager=7,MOD-Sender=5-3", "\"5-3\""},
                                           {"MOD-Manager=7,MOD-Sender=x", "\"x\""},
                                           {"MOD-Manager=7,MOD-Sender=1-", "\"1-\""},
                                           {"MOD-Manager=7,MOD-Sender=1,,2", "MOD-Sender"},
                                           {"MOD-Manager=7,MOD-Sender=,2", "MOD-Sender"},
                                           {"MOD-Manager=7,MOD-Sender=2,", "MOD-Sender"},
                                           {"MOD-Manager=7,=1", "\"=1\""},
                                           {"3,MOD-Manager=7", "\"3\""},
                                           {"  ", "Empty"}}) {
    std::string const error = registry.levelsApply(bad.setting);
    EXPECT_NE(error.find(bad.named), std::string::npos) << bad.setting << " -> " << error;
    EXPECT_EQ(manager.levels(), 0) << bad.setting;
  }
}

TEST_F(TraceLevels, TwoThreadsMayWriteAtOnce) {
  manager.levelsIs(kTraceLevelsAll);
  auto writer = [this] {
    for (int i = 0; i < 500; ++i) CALYX_TRACE(manager, 4, "line " << i << ".");
  };
  std::thread first(writer);
  std::thread second(writer);
  for (int i = 0; i < 100; ++i) registry.sinkIs(sink);
  first.join();
  second.join();
  EXPECT_EQ(sink->lines("MOD-Manager").size(), 1000u);
  EXPECT_TRUE(sink->lines("MOD-Sender").empty());
}

// The file sink and the stderr sink share one line writer; the file sink is the one a test can read back.
TEST(FileTraceSink, AppendsOneFormattedLinePerCallAndCountsWhatItCannotWrite) {
  char pattern[] = "/tmp/trace-test-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  std::string const dir = pattern;
  std::string const path = dir + "/trace.log";
  FileTraceSink(path).write("MOD-Sender", 1, "[ERROR] Failed to send report.");
  FileTraceSink sink(path);
  ASSERT_TRUE(sink.isOpen()) << sink.error();
  sink.write("MOD-Manager", 0, "Turning on.");
  sink.write("MOD-Manager", 3, "two\nlines");  // one record stays one line
  std::ifstream in(path);  // read while the sink is open: each line is already in the file
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  // Wall-clock time, UTC, ISO 8601 with microseconds.
  std::regex const lineFormat{R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z MOD-(\S+) (\d) (.*))"};
  std::smatch match;
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].substr(0, 4), std::to_string(1900 + [] {
              time_t const now = time(nullptr);
              tm utc{};
              gmtime_r(&now, &utc);
              return utc.tm_year;
            }()));
  ASSERT_TRUE(std::regex_match(lines[0], match, lineFormat)) << lines[0];
  EXPECT_EQ(match[1].str() + match[2].str() + match[3].str(), "Sender1[ERROR] Failed to send report.");
  ASSERT_TRUE(std::regex_match(lines[1], match, lineFormat)) << lines[1];
  EXPECT_EQ(match[1].str() + match[2].str() + match[3].str(), "Manager0Turning on.");
  ASSERT_TRUE(std::regex_match(lines[2], match, lineFormat)) << lines[2];
  EXPECT_EQ(match[3].str(), "two\\nlines");

  FileTraceSink missing(dir + "/missing/trace.log");
  EXPECT_FALSE(missing.isOpen());
  EXPECT_NE(missing.error().find(dir + "/missing/trace.log"), std::string::npos) << missing.error();
  missing.write("MOD-Sender", 1, "lost");
  EXPECT_EQ(missing.failedWrites(), 1u);
  EXPECT_EQ(sink.failedWrites(), 0u);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace Calyx
