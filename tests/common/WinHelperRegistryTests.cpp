#include "common/WinHelper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/KroStatus.h"
#include "tests/support/TestSupport.h"

#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace kro {
namespace {

const std::wstring kArbalo = L"SOFTWARE\\Norvane Technologies\\Arbalo";
const std::wstring kSetup = L"SOFTWARE\\Norvane Technologies\\Arbalo\\Setup";

class RegistryTests : public testing::Test {
 protected:
  static std::wstring ReadString(const std::wstring& key, const std::wstring& name) {
    std::wstring out = L"stale";
    ReadRegistryString(out, key, name);
    return out;
  }
  static int64_t ReadNumber(const std::wstring& key, const std::wstring& name) {
    int64_t out = -77;
    ReadRegistryNumber(out, key, name);
    return out;
  }
  // The stored bytes of a value of the `expected` type.
  static std::vector<uint8_t> Raw(const std::wstring& key, const std::wstring& name,
                                  RegType expected) {
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    EXPECT_EQ(RegistryQueryValue(key, name, type, data), status::Ok);
    EXPECT_EQ(type, expected);
    return data;
  }

  test::ScopedRegistry registry_;
};

TEST_F(RegistryTests, StringsRoundTripWithWindowsBytes) {
  // bytes: as Windows stores them (UTF-16LE, terminator included)
  const std::pair<const wchar_t*, std::vector<uint8_t>> cases[] = {
      {L"", {0, 0}},
      {L"\u00e9\u20ac\U0001F600", {0xE9, 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE, 0, 0}},
      {L"say \"hi\" \\ [x] = @", {}},  // what the file backend must escape
  };
  for (const auto& [text, bytes] : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(text)));
    WriteRegistryString(text, kSetup, L"InstallDir");
    EXPECT_EQ(ReadString(kSetup, L"InstallDir"), text);
    const std::vector<uint8_t> data = Raw(kSetup, L"InstallDir", RegType::Sz);
    if (!bytes.empty()) {
      EXPECT_EQ(data, bytes);
    }
  }
}

TEST_F(RegistryTests, NumbersAreReadFromText) {
  const std::pair<const wchar_t*, int64_t> cases[] = {
      {L"8443", 8443}, {L"abc", 0}, {L" -12", -12},
      {L"12abc", 12},  {L"", 0},    {L"9223372036854775807", INT64_MAX}};
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(text)));
    WriteRegistryString(text, kArbalo, L"AgentUIPort");
    EXPECT_EQ(ReadNumber(kArbalo, L"AgentUIPort"), expected);
  }
  WriteRegistryNumberAsText(-4096, kArbalo, L"Written");
  EXPECT_EQ(ReadString(kArbalo, L"Written"), L"-4096");
}

TEST_F(RegistryTests, NamesIgnoreCaseAndAnEmptyKeyIsTheDefaultOne) {
  WriteRegistryString(L"first", kArbalo, L"AgentUIPort");
  WriteRegistryString(L"second", L"software\\NORVANE technologies\\arbalo", L"agentuiport");
  EXPECT_EQ(ReadString(L"Software\\Norvane Technologies\\ARBALO", L"AGENTUIPORT"), L"second");
  WriteRegistryString(L"through empty", L"", L"Value");
  EXPECT_EQ(ReadString(kDefaultRegistryKey, L"Value"), L"through empty");
  WriteRegistryDword(7, kDefaultRegistryKey, L"Number");
  EXPECT_EQ(Raw(L"", L"Number", RegType::Dword), (std::vector<uint8_t>{7, 0, 0, 0}));
  // Writing without "create" needs an existing key.
  const std::wstring dialHome = kArbalo + L"\\DialHome";
  EXPECT_EQ(RegistryWriteSz(dialHome, L"Home", L"server", false), status::RegistryOpenFailed);
  EXPECT_EQ(RegistryWriteSz(dialHome, L"Home", L"server", true), status::Ok);
  EXPECT_EQ(RegistryWriteSz(dialHome, L"Alternate", L"backup", false), status::Ok);
  EXPECT_EQ(ReadString(dialHome, L"Home") + ReadString(dialHome, L"Alternate"), L"serverbackup");
}

TEST_F(RegistryTests, StatusCodesTellKeyFromValue) {
  WriteRegistryDword(443, kSetup, L"Port");
  WriteRegistryString(L"twelve chars", kSetup, L"Text");
  struct Case {
    const char* name;
    std::wstring key;
    const wchar_t* value;
    size_t maxBytes;
    long expected;
    bool missing;  // the silent readers give "" and 0
  };
  const Case cases[] = {
      {"no such key", kSetup + L"\\Missing", L"Text", 64, status::RegistryOpenFailed, true},
      {"parent of a written key", kArbalo, L"Text", 64, status::RegistryValueMissing, true},
      {"no such value", kSetup, L"Missing", 64, status::RegistryValueMissing, true},
      {"not a string", kSetup, L"Port", 64, status::RegistryValueMissing, false},
      {"larger than allowed", kSetup, L"Text", 25, status::RegistryValueMissing, false},
      {"exactly fits", kSetup, L"Text", 26, status::Ok, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::wstring out = L"untouched";
    EXPECT_EQ(RegistryReadSz(c.key, c.value, c.maxBytes, out), c.expected);
    EXPECT_EQ(out, c.expected == status::Ok ? L"twelve chars" : L"untouched");
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    EXPECT_EQ(RegistryQueryValue(c.key, c.value, type, data) == status::Ok, !c.missing);
    if (c.missing) {
      EXPECT_EQ(ReadString(c.key, c.value), L"");
      EXPECT_EQ(ReadNumber(c.key, c.value), 0);
    }
  }
}

// Writers in other processes and in this one at once: no update may overwrite another.
TEST_F(RegistryTests, ConcurrentWritersAllLand) {
  constexpr uint32_t kValuesEach = 20;
  const auto write = [](uint32_t writer) {
    for (uint32_t value = writer * 100; value < writer * 100 + kValuesEach; ++value) {
      WriteRegistryDword(value, kArbalo, L"V" + std::to_wstring(value));
    }
  };
  uint32_t writers = 0;
#ifndef _WIN32
  // Other processes: only the lock file keeps them from losing each other's updates.
  std::vector<pid_t> children;
  for (; writers < 2; ++writers) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      write(writers);
      _exit(0);
    }
    children.push_back(child);
  }
#endif
  // Threads of this process.
  std::thread other(write, writers);
  write(writers + 1);
  other.join();
  writers += 2;
#ifndef _WIN32
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
#endif
  for (uint32_t writer = 0; writer < writers; ++writer) {
    for (uint32_t value = writer * 100; value < writer * 100 + kValuesEach; ++value) {
      SCOPED_TRACE(value);
      EXPECT_EQ(Raw(kArbalo, L"V" + std::to_wstring(value), RegType::Dword),
                (std::vector<uint8_t>{static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                                      0, 0}));
    }
  }
}

// HKEY_LOCAL_MACHINE is a regedit-format file on POSIX only; Windows keeps the real registry.
class RegistryFileFormatTests : public RegistryTests {
 protected:
  void SetUp() override {
    if (registry_.File().empty()) {
      GTEST_SKIP() << "HKEY_LOCAL_MACHINE is the system registry here";
    }
  }
  void WriteFile(const std::string& text) const {
    std::ofstream(registry_.File(), std::ios::binary) << text;
  }
  std::string FileText() const { return test::ReadFile(registry_.File()); }
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

}  // namespace
}  // namespace kro
