// Damaged tables set aside: the file moves into this start's damaged-<time> directory, its companions follow
// it when they hold entries, and only the newest few such directories stay.
#include "agent/DamagedState.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "testkit/TempStateDir.h"

namespace {

namespace fs = std::filesystem;

class DamagedStateTest : public ::testing::Test {
 protected:
  std::string write(std::string const& name) {
    std::ofstream(dir.file(name)) << name;
    return dir.file(name);
  }
  std::vector<std::string> damagedDirs() const {
    std::vector<std::string> out;
    for (auto const& e : fs::directory_iterator(dir.path())) out.push_back(e.path().filename().string());
    std::erase_if(out, [](auto const& n) { return n.rfind("damaged-", 0) != 0; });
    std::sort(out.begin(), out.end());
    return out;
  }
  Calyx::Test::TempStateDir dir;
};

TEST_F(DamagedStateTest, OneDirectoryPerStartAndOnlyTheNewestCopiesStay) {
  for (char const* old : {"damaged-20000101T000000Z", "damaged-20000101T000001Z", "damaged-20000101T000002Z"})
    fs::create_directory(dir.file(old));
  ModAgent::DamagedState state(dir.path(), {{"emtConfig", "the entries are forgotten"}});
  auto const d = state.setAside({"emtConfig", write("emtConfig"), "bad magic 7", true});
  auto const d2 = state.setAside({"emtStatus", write("emtStatus"), "slot 3 has state 9", true});
  EXPECT_FALSE(fs::exists(dir.file("emtConfig")));
  EXPECT_TRUE(fs::exists(d.copy));
  EXPECT_EQ(fs::path(d.copy).parent_path(), fs::path(d2.copy).parent_path());
  EXPECT_EQ(ModAgent::DamagedState::message(d),
            "table emtConfig is damaged (bad magic 7): moved to " + d.copy +
                "; the entries are forgotten; starting with a fresh table");
  auto const kept = damagedDirs();  // the oldest went, this start's stays
  ASSERT_EQ(kept.size(), ModAgent::DamagedState::kCopiesKept);
  EXPECT_EQ(kept[0], "damaged-20000101T000001Z");

  // A second start within the same second gets a directory of its own.
  auto const d3 = ModAgent::DamagedState(dir.path()).setAside({"emtConfig", write("emtConfig"), "x", true});
  EXPECT_NE(fs::path(d3.copy).parent_path(), fs::path(d.copy).parent_path());
  EXPECT_TRUE(fs::exists(d.copy));

  // A file that cannot be moved is said, and left for the table to replace.
  auto const gone = ModAgent::DamagedState(dir.path()).setAside({"gone", dir.file("gone"), "x", true});
  EXPECT_NE(ModAgent::DamagedState::message(gone).find("it could not be kept (cannot move"),
            std::string::npos);
}

TEST_F(DamagedStateTest, CompanionsFollowTheDamagedTableOnlyWhenTheyHoldEntries) {
  ModAgent::DamagedState state(dir.path(), {}, {{"flows", {"counts", "entries"}}, {"counts", {"flows"}}});
  write("counts");
  write("entries");
  state.setAside({"flows", write("flows"), "file of 6 bytes is shorter than a segment header", true});
  auto const moved = state.companionsSetAside([](std::string const& table) { return table == "counts"; });
  ASSERT_EQ(moved.size(), 1u);
  EXPECT_EQ(moved[0].with, "flows");
  EXPECT_FALSE(fs::exists(dir.file("counts")));
  EXPECT_TRUE(fs::exists(dir.file("entries")));
  EXPECT_NE(ModAgent::DamagedState::message(moved[0]).find("table counts goes with flows"),
            std::string::npos);
}

}  // namespace
