// The plug-in's version follows its shared records: a host refuses a plug-in built with another layout of any
// of them, naming both versions, and accepts the plug-in built with its own.
#include <gtest/gtest.h>

#include <string>

#include "mirror_on_drop/MirrorOnDropPlugin.h"
#include "platform/io/PluginLibrary.h"
#include "tests/agent/plugins/OtherLayout.h"

using namespace MirrorOnDrop;

namespace {

TEST(PluginVersionTest, AHostRefusesAPluginBuiltWithAnotherRecordLayout) {
  ASSERT_NE(MirrorOnDrop::Test::kOtherLayoutVersion, PluginTable::kVersion);
  std::string error;
  auto library = Calyx::PluginLibrary::open(TEST_PLUGIN_OTHER_LAYOUT, PluginTable::kEntryPoint,
                                            PluginTable::kVersion, error);
  EXPECT_FALSE(library);
  EXPECT_EQ(error, std::string("the plug-in ") + TEST_PLUGIN_OTHER_LAYOUT + " has plug-in table version " +
                       std::to_string(MirrorOnDrop::Test::kOtherLayoutVersion) + ", this host needs " +
                       std::to_string(PluginTable::kVersion));
}

// Same size, another layout: only the record's own version tells them apart.
struct ReorderedKey : Report::Interface::Key {
  static constexpr uint32_t kLayoutVersion = Report::Interface::Key::kLayoutVersion + 1;
};

TEST(PluginVersionTest, EveryRecordsSizeAndOwnVersionCount) {
  uint32_t const v = SharedRecords::versionOf(PluginTable::kLayoutVersion);
  EXPECT_EQ(v, PluginTable::kVersion);
  EXPECT_NE(v, SharedRecords::versionOf(PluginTable::kLayoutVersion + 1));
  static_assert(sizeof(ReorderedKey) == sizeof(Report::Interface::Key));
  EXPECT_NE(v, (SharedRecords::Replaced<Report::Interface::Key, ReorderedKey>::versionOf(
                   PluginTable::kLayoutVersion)));
}

}  // namespace
