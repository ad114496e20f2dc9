#include "agent/InstalledProducts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "tests/support/TestSupport.h"

namespace KroAgent {
namespace {

namespace status = kro::status;

std::string Utf8(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

/** @brief `text` as a JSON string body: our paths carry backslashes on Windows. */
std::string JsonEscaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\' || c == '"') {
      out += '\\';
    }
    out += c;
  }
  return out;
}

std::string ProductsFile(const std::string& products) {
  return "{\"products\":[" + products + "]}";
}

class InstalledProductsTests : public testing::Test {
 protected:
  void SetUp() override {
    kesta_ = Utf8(dir_.Path()) + kro::kPathSeparatorA;
    ASSERT_EQ(Products().SetFolders("", kesta_), status::Ok);
  }

  static InstalledProducts& Products() { return InstalledProducts::Instance(); }

  long Load(const std::string& content) {
    dir_.Write("Products.cfg", content);
    return Products().ReloadProducts();
  }

  static std::string Report() {
    const char* response = nullptr;
    size_t length = 0;
    EXPECT_EQ(GetInstalledProductsBrowser("", 0, &response, &length), status::Ok);
    if (response == nullptr) {
      return {};
    }
    std::string text(response, length);
    delete[] response;
    return text;
  }

  std::string ReportOf(const std::string& prods) const {
    return "{\"kro_version\":\"7.0.222.0\",\"root_path\":\"" +
           JsonEscaped(kesta_.substr(0, kesta_.size() - 1)) + "\",\"prods\":[" + prods + "]}";
  }

  static std::vector<uint16_t> Ids() {
    ProductMap products;
    Products().QueryProducts(products);
    std::vector<uint16_t> ids;
    for (const auto& [id, record] : products) {
      ids.push_back(id);
    }
    return ids;
  }

  kro::test::TempDir dir_;
  std::string kesta_;
};

TEST_F(InstalledProductsTests, BadFilesLeaveAnEmptyTable) {
  // content: null: no file at all
  const std::pair<const char*, long> cases[] = {
      {nullptr, status::FileOpenFailed},
      {"", status::MalformedData},
      {"{\"products\":", status::NotAvailable},
      {"{\"products\":[]}", status::NotAvailable},
      {"{\"products\":[{\"id\":0},{\"name\":\"x\"},{\"id\":\"2\"},{\"id\":70000}]}",
       status::NotAvailable},
  };
  for (const auto& [content, wantStatus] : cases) {
    SCOPED_TRACE(content != nullptr ? content : "(no file)");
    ASSERT_EQ(Load("{\"products\":[{\"id\":4}]}"), status::Ok);
    std::filesystem::remove(dir_.Path() / "Products.cfg");
    const long result = content != nullptr ? Load(content) : Products().ReloadProducts();
    EXPECT_EQ(result, wantStatus);
    ProductMap products;
    EXPECT_EQ(Products().QueryProducts(products), kNoProducts);
    EXPECT_EQ(Report(), ReportOf(""));
  }
}

TEST_F(InstalledProductsTests, ReportTextForASmallFile) {
  ASSERT_EQ(Load(ProductsFile(
                R"({"id":2,"name":"Optim","displayName":"Optimizer","url":"Arbalo/UI",)"
                R"("version":"2.1.300.4","patchLevel":"P3"},)"
                R"({"id":1,"name":"Kesta","displayName":"0123456789012345678901234567890123"})")),
            status::Ok);
  EXPECT_EQ(Report(), ReportOf(R"({"name":"","key":"Kesta","url":"//","version":"7.0.222.0",)"
                               R"("patchLevel":""},)"
                               R"({"name":"Optimizer","key":"Optim","url":"/arbalo/ui/",)"
                               R"("version":"2.1.300.4","patchLevel":"P3"})"));
}

TEST_F(InstalledProductsTests, ManyProductsGrowTheTableStayInIdOrderAndKeepValidVersions) {
  ASSERT_EQ(Load(ProductsFile(R"({"id":50,"name":"e","version":"5"},{"id":30,"name":"c"},)"
                              R"({"id":90,"name":"i","version":"0.0.0.0"},{"id":1,"name":"a"},)"
                              R"({"id":70,"name":"G","version":"7.1"},)"
                              R"({"id":20,"name":"d","version":"100.200.3000.100"},)"
                              R"({"id":40,"name":"f","version":"7a"})")),
            status::Ok);
  EXPECT_EQ(Ids(), (std::vector<uint16_t>{1, 20, 30, 40, 50, 70, 90}));
  struct Case {
    uint16_t id;
    const char* name;
    uint32_t count;
    uint32_t packed;
    const char* text;
  };
  const Case cases[] = {
      {1, "a", 1, 0x07000DE0, "7.0.222.0"},  // our own product, without a version of its own
      {20, "d", 1, 0x64C8BB84, ""},          // packed, but the text is too long to keep
      {30, "c", 0, 0, ""},
      {40, "f", 0, 0, ""},
      {50, "e", 1, 0x05000000, "5"},
      {70, "G", 1, 0x07010000, "7.1"},
      {90, "i", 0, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id);
    ProductRecord record;
    ASSERT_EQ(Products().FindById(c.id, record), status::Ok);
    EXPECT_STREQ(record.name, c.name);
    EXPECT_EQ(record.versionCount, c.count);
    EXPECT_EQ(record.packedVersion, c.packed);
    EXPECT_STREQ(record.versionText, c.text);
  }
}

TEST_F(InstalledProductsTests, DuplicatesFailAndAreLeftOut) {
  EXPECT_EQ(Load(ProductsFile(R"({"id":2,"name":"Alpha"},{"id":3,"name":"ALPHA"},)"
                              R"({"id":4,"name":"beta"})")),
            status::Ok);
  EXPECT_EQ(Ids(), (std::vector<uint16_t>{2, 4}));
  ProductRecord record;
  ASSERT_EQ(Products().FindByName("aLpHa", record), status::Ok);
  EXPECT_EQ(record.id, 2);
  EXPECT_EQ(Products().FindByName("gamma", record), status::NotFound);

  // The last product's status is the reload's: here the duplicate id.
  EXPECT_EQ(Load(ProductsFile(R"({"id":2,"name":"one"},{"id":2,"name":"two"})")),
            status::DuplicateProduct);
  EXPECT_EQ(Ids(), (std::vector<uint16_t>{2}));
}

TEST_F(InstalledProductsTests, VersionTextPacking) {
  const std::tuple<const char*, bool, uint32_t> cases[] = {{"7", true, 0x07000000},
                                                           {"7.0.222.0", true, 0x07000DE0},
                                                           {"1.2.4097.3", true, 0x01020013},
                                                           {"256.1.2.31", true, 0x0001002F},
                                                           {"7a", false, 0},
                                                           {"7.0.222.0x", false, 0},
                                                           {"1.2.3.4.5", false, 0},
                                                           {"7.", false, 0},
                                                           {"", false, 0},
                                                           {".1", false, 0}};
  for (const auto& [text, valid, wantPacked] : cases) {
    SCOPED_TRACE(text);
    uint32_t packed = 0;
    EXPECT_EQ(PackVersionText(text, packed), valid);
    if (valid) {
      EXPECT_EQ(packed, wantPacked);
    }
  }
}

TEST_F(InstalledProductsTests, PathsAndVersionsFromTheProductFolder) {
#ifdef _WIN32
  const std::string absolute = "C:\\Products\\Tool";
  const std::filesystem::path executable =
      std::filesystem::path(std::getenv("SystemRoot")) / "regedit.exe";
#else
  const std::string absolute = "/opt/products/tool";
  const std::filesystem::path executable = KRO_STAMPED_MODULE;  // carries its version note
#endif
  std::filesystem::create_directories(dir_.Path() / "app");
  std::filesystem::copy_file(executable, dir_.Path() / "app" / "tool.exe");

  // "missing" cannot be listed, so it fails and its slot goes to the product after it.
  ASSERT_EQ(Load(ProductsFile(R"({"id":2,"name":"a","path":"app"},)"
                              R"({"id":3,"name":"b","path":"missing"},)"
                              R"({"id":4,"name":"c","path":")" +
                              JsonEscaped(absolute) + R"(","version":"1.0"})")),
            status::Ok);
  EXPECT_EQ(Ids(), (std::vector<uint16_t>{2, 4}));
  ProductRecord record;
  ASSERT_EQ(Products().FindById(2, record), status::Ok);
  EXPECT_EQ(record.path, kesta_ + "app");
  ASSERT_EQ(Products().FindById(4, record), status::Ok);
  EXPECT_EQ(record.path, absolute);

  // With the install folder known, its service executable is asked instead of the folder.
  ASSERT_EQ(Products().SetFolders(kesta_, ""), status::Ok);
  EXPECT_EQ(Products().ReloadProducts(), status::Ok);
  EXPECT_EQ(Ids(), (std::vector<uint16_t>{2, 3, 4}));
}

#ifndef _WIN32
TEST_F(InstalledProductsTests, VersionNoteIsReadWhereThereIsOneAndSafelyWhereNot) {
  const std::string module = kro::test::ReadFile(KRO_STAMPED_MODULE);
  ASSERT_GT(module.size(), 4096u);
  const size_t note =
      module.find(std::string("KroAgent\0\0\0\0"
                              "7.0.222.0",
                              21));
  ASSERT_NE(note, std::string::npos);
  // A copy of the module with its bytes at `at` replaced.
  const auto patched = [&module](size_t at, const std::string& bytes) {
    return module.substr(0, at) + bytes + module.substr(at + bytes.size());
  };
  struct Case {
    const char* name;
    std::string content;  // empty: the file named by `path`
    std::string path;
    long status;
    const char* version;
  };
  const Case cases[] = {
      {"stamped module", "", KRO_STAMPED_MODULE, status::Ok, "7.0.222.0"},
      {"stamped host", "", KRO_STAMPED_HOST, status::Ok, "7.0.222.0"},
      {"other notes only", "", "/bin/true", status::NotFound, ""},
      {"missing", "", "/nonexistent/tool", status::FileOpenFailed, ""},
      {"not ELF", "#!/bin/sh\nexit 0\n", "", status::MalformedData, ""},
      {"cut after the header", module.substr(0, 64), "", status::MalformedData, ""},
      {"section table beyond the end", patched(0x28, std::string("\0\0\0\0\0\0\0\x7F", 8)), "",
       status::MalformedData, ""},
      // The note's data size runs past its section: the note is skipped, not read beyond.
      {"data size beyond the section", patched(note - 8, std::string("\xFF\xFF\0\0", 4)), "",
       status::NotFound, ""},
      {"another owner", patched(note, "KroAgenT"), "", status::NotFound, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = c.content.empty() ? c.path : Utf8(dir_.Write("tool.exe", c.content));
    std::string version = "stale";
    EXPECT_EQ(detail::ReadFileVersion(file, version), c.status);
    EXPECT_EQ(version, c.version);
  }
}
#endif

}  // namespace
}  // namespace KroAgent
