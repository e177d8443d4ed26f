// Damaged tables set aside: the file moves into this start's damaged-<time> directory, its companions follow
// it when they hold entries, and only the newest few such directories stay.
#include "agent/DamagedState.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "testkit/TempStateDir.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> damagedDirs(std::string const& dir) {
  std::vector<std::string> out;
  for (auto const& e : fs::directory_iterator(dir)) {
    if (e.path().filename().string().rfind("damaged-", 0) == 0) out.push_back(e.path().filename().string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

class DamagedStateTest : public ::testing::Test {
 protected:
  std::string write(std::string const& name, std::string const& text) {
    std::ofstream(dir.file(name)) << text;
    return dir.file(name);
  }
  static std::string read(std::string const& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  Calyx::Test::TempStateDir dir;
};

TEST_F(DamagedStateTest, TheFileMovesIntoOneDirectoryPerStartAndOnlyTheNewestCopiesStay) {
  for (char const* old :
       {"damaged-20000101T000000Z", "damaged-20000101T000001Z", "damaged-20000101T000002Z"}) {
    fs::create_directory(dir.file(old));
    write(std::string(old) + "/emtConfig", "old");
  }
  ModAgent::DamagedState state(dir.path(), {{"emtConfig", "the entries are forgotten"}});
  auto const d = state.setAside({"emtConfig", write("emtConfig", "broken bytes"), "bad magic 7", true});
  auto const d2 = state.setAside({"emtStatus", write("emtStatus", "more"), "slot 3 has state 9", true});

  EXPECT_FALSE(fs::exists(dir.file("emtConfig")));
  EXPECT_EQ(read(d.copy), "broken bytes");
  EXPECT_EQ(fs::path(d.copy).parent_path(), fs::path(d2.copy).parent_path());  // one directory per start
  EXPECT_EQ(ModAgent::DamagedState::message(d),
            "table emtConfig is damaged (bad magic 7): moved to " + d.copy +
                "; the entries are forgotten; starting with a fresh table");
  EXPECT_EQ(d2.lost, "what it held is lost");
  EXPECT_EQ(state.tables().size(), 2u);
  // The oldest copy went; this start's is kept.
  auto const kept = damagedDirs(dir.path());
  ASSERT_EQ(kept.size(), ModAgent::DamagedState::kCopiesKept);
  EXPECT_EQ(kept[0], "damaged-20000101T000001Z");
  EXPECT_EQ(dir.file(kept[2]), fs::path(d.copy).parent_path().string());

  // A second start within the same second gets a directory of its own.
  ModAgent::DamagedState again(dir.path());
  auto const d3 = again.setAside({"emtConfig", write("emtConfig", "again"), "bad magic 8", true});
  EXPECT_NE(fs::path(d3.copy).parent_path(), fs::path(d.copy).parent_path());
  EXPECT_EQ(read(d.copy), "broken bytes");
  EXPECT_EQ(damagedDirs(dir.path()).size(), ModAgent::DamagedState::kCopiesKept);
}

TEST_F(DamagedStateTest, CompanionsFollowTheDamagedTableOnlyWhenTheyHoldEntries) {
  ModAgent::DamagedState state(dir.path(), {}, {{"flows", {"counts", "entries"}}, {"counts", {"flows"}}});
  write("counts", "valid, with entries");
  write("entries", "valid, empty");
  state.setAside(
      {"flows", write("flows", "broken"), "file of 6 bytes is shorter than a segment header", true});
  auto const moved = state.companionsSetAside([](std::string const& table) { return table == "counts"; });
  ASSERT_EQ(moved.size(), 1u);
  EXPECT_EQ(moved[0].table, "counts");
  EXPECT_EQ(moved[0].with, "flows");
  EXPECT_EQ(read(moved[0].copy), "valid, with entries");
  EXPECT_TRUE(fs::exists(dir.file("entries")));
  EXPECT_NE(ModAgent::DamagedState::message(moved[0]).find("table counts goes with flows"),
            std::string::npos);
  EXPECT_TRUE(state.companionsSetAside([](auto const&) { return true; }).size() == 1);  // entries, not flows
}

TEST_F(DamagedStateTest, AFileThatCannotBeMovedIsSaidAndLeftToBeReplaced) {
  ModAgent::DamagedState state(dir.path());
  auto const d = state.setAside({"gone", dir.file("gone"), "bad magic 1", true});
  EXPECT_TRUE(d.copy.empty());
  EXPECT_NE(ModAgent::DamagedState::message(d).find("it could not be kept (cannot move " + dir.file("gone")),
            std::string::npos)
      << ModAgent::DamagedState::message(d);
}

}  // namespace
