#include "config/KroConfigurationManager.h"

#include <gtest/gtest.h>

#include <string>

#include "common/WinHelper.h"
#include "config/KroAgentConfiguration.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

const std::string kSep(1, kPathSeparatorA);

TEST(ConfigurationManagerTests, DataDirectoryGetsOneFinalSeparator) {
  struct Case {
    std::string given;
    std::string stored;
  };
  const Case cases[] = {
      {"C:\\Arbalo\\Kesta\\Policy", "C:\\Arbalo\\Kesta\\Policy" + kSep},
      {"/opt/arbalo/Kesta/Policy", "/opt/arbalo/Kesta/Policy" + kSep},
      {"C:\\Policy\\", "C:\\Policy\\"},
      {"/policy/", "/policy/"},
      {"C:", "C:"},
      {"", ""},
  };
  KroConfigurationManager& manager = KroConfigurationManager::Instance();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.given);
    manager.SetDataDirectory(c.given);
    EXPECT_EQ(manager.DataDirectory(), c.stored);
  }
}

TEST(ConfigurationManagerTests, AgentSettingsAreCreatedOnceWithDefaultsThenFile) {
  test::TempDir dir;
  dir.Write("AgentConfig.cfg", R"({"DialHomeInterval":60,"LoggingLevel":9})");
  KroConfigurationManager& manager = KroConfigurationManager::Instance();
  manager.SetDataDirectory(dir.Path().string());

  KroAgentConfiguration* settings = manager.GetAgentConfiguration();
  ASSERT_NE(settings, nullptr);
  EXPECT_EQ(settings->FilePath(), dir.Path().string() + kSep + "AgentConfig.cfg");
  EXPECT_EQ(settings->DialHomeInterval(), 60u);
  EXPECT_EQ(settings->LoggingLevel(), 4u);
  EXPECT_EQ(settings->DialHomeThirdRetry(), 240u);

  manager.SetDataDirectory("");
  EXPECT_EQ(manager.GetAgentConfiguration(), settings);
  EXPECT_EQ(manager.GetMasterConfiguration(), nullptr);
}

}  // namespace
}  // namespace kro
