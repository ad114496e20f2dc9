#include "common/WinHelper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/KroStatus.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

const std::wstring kArbalo = L"SOFTWARE\\Norvane Technologies\\Arbalo";
const std::wstring kSetup = L"SOFTWARE\\Norvane Technologies\\Arbalo\\Setup";

// The registry file exists on POSIX only; Windows keeps the real registry.
class RegistryFileFormatTests : public testing::Test {
 protected:
  void SetUp() override {
    if (registry_.File().empty()) {
      GTEST_SKIP() << "HKEY_LOCAL_MACHINE is the system registry here";
    }
  }

  void WriteFile(const std::string& text) const {
    std::ofstream(registry_.File(), std::ios::binary | std::ios::trunc) << text;
  }

  std::string FileText() const { return test::ReadFile(registry_.File()); }

  static std::vector<uint8_t> Query(const std::wstring& key, const std::wstring& name,
                                    RegType expectedType) {
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    EXPECT_EQ(RegistryQueryValue(key, name, type, data), status::Ok);
    EXPECT_EQ(type, expectedType);
    return data;
  }

  test::ScopedRegistry registry_;
};

TEST_F(RegistryFileFormatTests, WritesRegeditExportText) {
  WriteRegistryDword(8443, kArbalo, L"AgentPort");
  WriteRegistryString(L"C:\\Program Files\\Kro", kSetup, L"InstallDir");
  WriteRegistryString(L"\u00e9 \"q\"", kArbalo, L"Say \"hi\"");
  WriteRegistryDword(1, L"software\\norvane technologies\\ARBALO", L"agentport");
  EXPECT_EQ(FileText(),
            "Windows Registry Editor Version 5.00\n"
            "\n"
            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]\n"
            "\"AgentPort\"=dword:00000001\n"
            "\"Say \\\"hi\\\"\"=\"\xC3\xA9 \\\"q\\\"\"\n"
            "\n"
            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo\\Setup]\n"
            "\"InstallDir\"=\"C:\\\\Program Files\\\\Kro\"\n");

  // Every write renamed its temporary file over the original.
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(registry_.File().parent_path())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"registry.reg", "registry.reg.lock"}));
}

TEST_F(RegistryFileFormatTests, ReadsEveryValueTypeAndKeepsItOnRewrite) {
  const std::string original =
      "\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n"
      "\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]\r\n"
      "@=\"default\"\r\n"
      "\"Blob\"=hex:01,ab,FF\r\n"
      "\"Path\"=hex(2):25,00,41,00,00,00\r\n"
      "\"List\"=hex(7):61,00,00,00,\\\r\n"
      "  62,00,00,00,00,00\r\n"
      "\"Big\"=hex(b):01,02,03,04,05,06,07,08\r\n"
      "\"Odd\"=hex(1):41,00\r\n"
      "\"Port\"=dword:20FB\r\n";
  WriteFile(original);

  EXPECT_EQ(Query(kArbalo, L"Blob", RegType::Binary), (std::vector<uint8_t>{0x01, 0xAB, 0xFF}));
  EXPECT_EQ(Query(kArbalo, L"Path", RegType::ExpandSz),
            (std::vector<uint8_t>{0x25, 0, 0x41, 0, 0, 0}));
  EXPECT_EQ(Query(kArbalo, L"List", RegType::MultiSz),
            (std::vector<uint8_t>{0x61, 0, 0, 0, 0x62, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Query(kArbalo, L"Big", RegType::Qword), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(Query(kArbalo, L"Odd", RegType::Sz), (std::vector<uint8_t>{0x41, 0}));
  EXPECT_EQ(Query(kArbalo, L"Port", RegType::Dword), (std::vector<uint8_t>{0xFB, 0x20, 0, 0}));
  std::wstring text;
  ReadRegistryString(text, kArbalo, L"");
  EXPECT_EQ(text, L"default");

  WriteRegistryDword(1, kArbalo, L"AgentSSL");
  EXPECT_EQ(FileText(),
            "Windows Registry Editor Version 5.00\n"
            "\n"
            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]\n"
            "@=\"default\"\n"
            "\"Blob\"=hex:01,ab,ff\n"
            "\"Path\"=hex(2):25,00,41,00,00,00\n"
            "\"List\"=hex(7):61,00,00,00,62,00,00,00,00,00\n"
            "\"Big\"=hex(b):01,02,03,04,05,06,07,08\n"
            "\"Odd\"=hex(1):41,00\n"
            "\"Port\"=dword:000020fb\n"
            "\"AgentSSL\"=dword:00000001\n");
}

TEST_F(RegistryFileFormatTests, GarbledLinesAreSkipped) {
  WriteFile(std::string("Windows Registry Editor Version 5.00\n"
                        "\"Orphan\"=\"before any key\"\n"
                        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]\n"
                        "\"Good1\"=\"one\"\n"
                        "\"Broken=\n"
                        "\"Unterminated\"=\"text\n"
                        "\"BadDword\"=dword:zz\n"
                        "\"LongDword\"=dword:123456789\n"
                        "\"BadHex\"=hex:0g,01\n"
                        "\"BadType\"=hex(q):01\n"
                        "\"Trailing\"=\"a\" junk\n"
                        "\"Deleted\"=-\n"
                        "just words\n") +
            std::string("\x00\xFF\xFE garbage \x01\n", 14) +
            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo\\Setup\n"
            "\"InUnclosedSection\"=\"lost\"\n"
            "[HKEY_CURRENT_USER\\Software\\Other]\n"
            "\"OtherHive\"=\"ignored\"\n"
            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]\n"
            "\"Good2\"=dword:00000002\n");

  std::wstring text;
  ReadRegistryString(text, kArbalo, L"Good1");
  EXPECT_EQ(text, L"one");
  EXPECT_EQ(Query(kArbalo, L"Good2", RegType::Dword), (std::vector<uint8_t>{2, 0, 0, 0}));

  // A rewrite keeps what was readable and nothing else.
  WriteRegistryString(L"three", kArbalo, L"Good3");
  EXPECT_EQ(FileText(),
            "Windows Registry Editor Version 5.00\n"
            "\n"
            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]\n"
            "\"Good1\"=\"one\"\n"
            "\"Good2\"=dword:00000002\n"
            "\"Good3\"=\"three\"\n");
}

TEST_F(RegistryFileFormatTests, LocationComesFromTheEnvironmentAtEachCall) {
  test::TempDir other;
  const std::filesystem::path nested = other.Path() / "new" / "folder" / "registry.reg";
  test::SetEnv("KRO_REGISTRY_FILE", nested.string().c_str());
  WriteRegistryDword(3, kArbalo, L"Moved");
  EXPECT_TRUE(std::filesystem::exists(nested));
  EXPECT_FALSE(std::filesystem::exists(registry_.File()));

  // A folder that cannot be created: writes fail, reads find nothing, nothing crashes.
  const std::filesystem::path blocked = other.Write("blocker", "a file") / "registry.reg";
  test::SetEnv("KRO_REGISTRY_FILE", blocked.string().c_str());
  EXPECT_EQ(RegistryWriteSz(kArbalo, L"Name", L"value", true), status::RegistryWriteFailed);
  WriteRegistryDword(4, kArbalo, L"Silent");
  std::wstring text = L"stale";
  ReadRegistryString(text, kArbalo, L"Name");
  EXPECT_EQ(text, L"");
}

}  // namespace
}  // namespace kro
