#include "platform/shm/MappedFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "testkit/TempStateDir.h"

namespace Calyx {
namespace {

class MappedFileTest : public ::testing::Test {
 protected:
  void writeFile(std::string const& name, std::string const& bytes) {
    std::ofstream(dir.file(name), std::ios::binary) << bytes;
  }
  std::string readFile(std::string const& name) {
    std::ifstream in(dir.file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  Calyx::Test::TempStateDir dir;
};

// What one process writes through a created mapping, another sees by opening the path; the file is made for
// owner and group only.
TEST_F(MappedFileTest, CreatedFileIsSharedZeroedAndNotWorldReadable) {
  ::umask(022);
  auto made = MappedFile::create(dir.file("seg"), 4096);
  ASSERT_TRUE(made) << made.error().text();
  EXPECT_EQ(made.value().bytes(), 4096u);
  EXPECT_EQ(made.value().base()[4095], std::byte{0});
  std::memcpy(made.value().base(), "abcd", 4);

  auto opened = MappedFile::open(dir.file("seg"), false, 8);
  ASSERT_TRUE(opened) << opened.error().text();
  EXPECT_EQ(std::memcmp(opened.value().base(), "abcd", 4), 0);
  EXPECT_TRUE(opened.value().isFileAt(dir.file("seg")));

  struct stat st {};
  ASSERT_EQ(::stat(dir.file("seg").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

// A symlink planted at the path is neither followed to create nor to open; its target stays as it was.
TEST_F(MappedFileTest, SymlinkAtThePathIsNeverFollowed) {
  writeFile("precious", "keep me");
  std::filesystem::create_symlink(dir.file("precious"), dir.file("seg"));

  auto made = MappedFile::create(dir.file("seg"), 4096);
  ASSERT_FALSE(made);
  EXPECT_EQ(made.code(), ELOOP);
  EXPECT_STREQ(made.error().call, "open");
  EXPECT_EQ(made.error().context, "cannot create " + dir.file("seg"));

  auto opened = MappedFile::open(dir.file("seg"), true, 1);
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.code(), ELOOP);
  EXPECT_EQ(readFile("precious"), "keep me");
}

TEST_F(MappedFileTest, OpenTellsMissingAndShortFilesApart) {
  auto missing = MappedFile::open(dir.file("none"), false, 8);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.code(), ENOENT);

  writeFile("short", "abc");
  auto shortFile = MappedFile::open(dir.file("short"), false, 8);
  ASSERT_TRUE(shortFile);
  EXPECT_FALSE(shortFile.value().mapped());
  EXPECT_EQ(shortFile.value().bytes(), 3u);
}

// Publishing renames the new file over the old one: a mapping of the old file still works but no longer names
// the path; a rename that fails removes the new file instead of leaving it behind.
TEST_F(MappedFileTest, ReplacingRetiresTheOldFileOrRemovesTheNewOne) {
  auto old = MappedFile::create(dir.file("seg"), 4096);
  auto fresh = MappedFile::create(dir.file(".seg.new"), 4096);
  ASSERT_TRUE(old && fresh);
  ASSERT_TRUE(MappedFile::replaceFile(dir.file(".seg.new"), dir.file("seg")));
  EXPECT_FALSE(old.value().isFileAt(dir.file("seg")));
  EXPECT_TRUE(fresh.value().isFileAt(dir.file("seg")));

  auto stray = MappedFile::create(dir.file(".other.new"), 64);
  ASSERT_TRUE(stray);
  auto const failed = MappedFile::replaceFile(dir.file(".other.new"), dir.file("no-such-dir/other"));
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.code(), ENOENT);
  EXPECT_FALSE(std::filesystem::exists(dir.file(".other.new")));
}

}  // namespace
}  // namespace Calyx
