// The plug-in loader against tiny plug-ins built for the purpose: one it accepts, and one for each way a
// library can be refused. Every refusal is an error text that names the file; nothing aborts.
#include <gtest/gtest.h>

#include "platform/io/PluginLibrary.h"
#include "tests/platform/io/plugins/TestPluginTable.h"

using Calyx::PluginLibrary;

namespace {

std::unique_ptr<PluginLibrary> load(std::string const& path, std::string& error, uint32_t version = 1) {
  return PluginLibrary::open(path, TestPluginTable::kEntryPoint, version, error);
}

TEST(PluginLibraryTest, TheAcceptedTableStaysUsableWhileTheLibraryLives) {
  std::string error;
  auto library = load(TEST_PLUGIN_V1, error);
  ASSERT_TRUE(library) << error;
  EXPECT_EQ(library->path(), TEST_PLUGIN_V1);
  auto const& table = library->tableAs<TestPluginTable>();
  EXPECT_EQ(table.version, 1u);
  EXPECT_STREQ(table.greeting(), "hello");
}

TEST(PluginLibraryTest, EveryRefusalNamesTheFile) {
  std::string error;
  EXPECT_FALSE(load("/nonexistent/libplugin.so", error));
  // The loader's own reason follows the file's name.
  EXPECT_EQ(error.rfind("cannot load the plug-in /nonexistent/libplugin.so: ", 0), 0u) << error;
  EXPECT_NE(error.find("No such file"), std::string::npos) << error;

  EXPECT_FALSE(load(TEST_PLUGIN_NO_ENTRY, error));
  EXPECT_EQ(error,
            std::string("the plug-in ") + TEST_PLUGIN_NO_ENTRY + " has no entry point testPluginTable");

  EXPECT_FALSE(load(TEST_PLUGIN_NO_TABLE, error));
  EXPECT_EQ(error,
            std::string("the plug-in ") + TEST_PLUGIN_NO_TABLE + " returned no table from testPluginTable");

  EXPECT_FALSE(load(TEST_PLUGIN_V2, error));
  EXPECT_EQ(error,
            std::string("the plug-in ") + TEST_PLUGIN_V2 + " has plug-in table version 2, this host needs 1");
}

}  // namespace
