#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>

#include "agent/InstalledProducts.h"
#include "common/WinHelper.h"
#include "config/KroAgentConfiguration.h"
#include "config/KroMasterConfiguration.h"
#include "core/KroStatus.h"
#include "logging_support/logging_support.h"
#include "tests/support/TestSupport.h"

namespace KroAgent {
namespace {

namespace status = kro::status;

// The settings files a person may edit by hand, each loaded by its own reader.
class SettingsFilesTests : public testing::Test {
 protected:
  void SetUp() override {
    // Outlives every test: the thread keeps pointing at it.
    static auto* logger = new logging_support::logger_type;
    logging_support::create_logger_for_product(*logger, "KroSettingsTest", log_.Path() / "t.log");
    logging_support::set_logger_for_thread(*logger);
    const std::u8string kesta = dir_.Path().u8string();
    ASSERT_EQ(InstalledProducts::Instance().SetFolders("", std::string(kesta.begin(), kesta.end())),
              status::Ok);
  }
  void TearDown() override { logging_support::remove_product_sink("KroSettingsTest"); }

  /** @brief What was logged since the last call. */
  std::string NewLog() {
    std::string text = kro::test::ReadFile(log_.Path() / "t.log");
    std::string added = text.substr(seen_);
    seen_ = text.size();
    return added;
  }

  kro::test::TempDir dir_;
  kro::test::TempDir log_;
  size_t seen_ = 0;
};

/** @brief Loads the file and tells whether its value 60 arrived. */
using Reader = std::function<bool(const std::filesystem::path& file, long& result)>;

bool ReadAgentConfig(const std::filesystem::path& file, long& result) {
  kro::KroAgentConfiguration config;
  config.SetDefaults();
  result = config.Load(file.string());
  return config.DialHomeInterval() == 60;
}

bool ReadMasterConfig(const std::filesystem::path& file, long& result) {
  kro::KroMasterConfiguration config;
  result = config.Load(file.string());
  return config.AgentPort() == 60;
}

bool ReadProducts(const std::filesystem::path& /*file*/, long& result) {
  result = InstalledProducts::Instance().ReloadProducts();
  ProductRecord record;
  return InstalledProducts::Instance().FindById(60, record) == status::Ok;
}

TEST_F(SettingsFilesTests, AByteOrderMarkIsSkippedAndABrokenFileIsIgnoredWithItsPlaceLogged) {
  const std::string bom = "\xEF\xBB\xBF";
  struct Case {
    const char* file;
    Reader read;
    std::string content;
    long result;
    const char* logged;  // where the file stops being JSON; null: it is taken
  };
  const Case cases[] = {
      {"AgentConfig.cfg", ReadAgentConfig, bom + R"({"DialHomeInterval":60})", status::Ok, nullptr},
      {"AgentConfig.cfg", ReadAgentConfig,
       "{\n  \"DialHomeInterval\": 60\n  \"LoggingLevel\": 2\n}", status::NotAvailable,
       "line 3, column 3"},
      {"AgentConfig.cfg", ReadAgentConfig, bom + "[60]", status::NotAvailable, "not a JSON object"},
      {"MasterConfig.cfg", ReadMasterConfig, bom + R"({"AgentPort":60})", status::Ok, nullptr},
      {"MasterConfig.cfg", ReadMasterConfig, bom + R"({"AgentPort":60,})", status::NotAvailable,
       "line 1, column 17"},
      {"Products.cfg", ReadProducts, bom + R"({"products":[{"id":60}]})", status::Ok, nullptr},
      // Columns count characters: "é" is two bytes.
      {"Products.cfg", ReadProducts, "{\"products\":[\n{\"id\":60,\"name\":\"\xC3\xA9\" x}]}",
       status::NotAvailable, "line 2, column 21"},
      {"Products.cfg", ReadProducts, bom + bom + R"({"products":[{"id":60}]})",
       status::NotAvailable, "line 1, column 1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.file) + ": " + c.content);
    const std::filesystem::path file = dir_.Write(c.file, c.content);
    NewLog();
    long result = 0;
    EXPECT_EQ(c.read(file, result), c.logged == nullptr);
    EXPECT_EQ(result, c.result);
    const std::string log = NewLog();
    size_t ignored = 0;
    for (size_t at = log.find("ignored"); at != std::string::npos;
         at = log.find("ignored", at + 1)) {
      ++ignored;
    }
    if (c.logged == nullptr) {
      EXPECT_EQ(ignored, 0u) << log;
      continue;
    }
    EXPECT_EQ(ignored, 1u) << log;
    EXPECT_NE(log.find(c.file), std::string::npos) << log;
    EXPECT_NE(log.find(c.logged), std::string::npos) << log;
  }
}

}  // namespace
}  // namespace KroAgent
