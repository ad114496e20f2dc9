#include "common/WinHelper.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "common/KroStatus.h"
#include "tests/support/TestSupport.h"

#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace kro {
namespace {

const std::wstring kArbalo = L"SOFTWARE\\Norvane Technologies\\Arbalo";
const std::wstring kSetup = L"SOFTWARE\\Norvane Technologies\\Arbalo\\Setup";

std::vector<uint8_t> Utf16Bytes(const std::vector<uint16_t>& units) {
  std::vector<uint8_t> bytes;
  for (uint16_t unit : units) {
    bytes.push_back(static_cast<uint8_t>(unit));
    bytes.push_back(static_cast<uint8_t>(unit >> 8));
  }
  return bytes;
}

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
  // The stored bytes of a value of the `expected` type; empty when it cannot be read.
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
  struct Case {
    const wchar_t* text;
    std::vector<uint16_t> units;  // as Windows stores them, terminator included
  };
  const Case cases[] = {
      {L"C:\\Program Files\\Kro", {}},
      {L"", {0}},
      {L"say \"hi\" \\ [x] = @", {}},
      {L"\u00e9\u20ac\U0001F600", {0x00E9, 0x20AC, 0xD83D, 0xDE00, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.text)));
    WriteRegistryString(c.text, kSetup, L"InstallDir");
    EXPECT_EQ(ReadString(kSetup, L"InstallDir"), c.text);
    const std::vector<uint8_t> data = Raw(kSetup, L"InstallDir", RegType::Sz);
    if (!c.units.empty()) {
      EXPECT_EQ(data, Utf16Bytes(c.units));
    } else {
      EXPECT_EQ(data.size(), (std::wstring(c.text).size() + 1) * 2);
    }
  }
}

TEST_F(RegistryTests, NumbersAreReadFromText) {
  struct Case {
    const wchar_t* text;
    int64_t expected;
  };
  const Case cases[] = {
      {L"8443", 8443}, {L"abc", 0}, {L" -12", -12},
      {L"12abc", 12},  {L"", 0},    {L"9223372036854775807", INT64_MAX},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.text)));
    WriteRegistryString(c.text, kArbalo, L"AgentUIPort");
    EXPECT_EQ(ReadNumber(kArbalo, L"AgentUIPort"), c.expected);
  }
  WriteRegistryNumberAsText(-4096, kArbalo, L"Written");
  EXPECT_EQ(ReadString(kArbalo, L"Written"), L"-4096");
  EXPECT_EQ(ReadNumber(kArbalo, L"Written"), -4096);
}

TEST_F(RegistryTests, NamesAreCaseInsensitive) {
  WriteRegistryString(L"first", kArbalo, L"AgentUIPort");
  WriteRegistryString(L"second", L"software\\NORVANE technologies\\arbalo", L"agentuiport");
  EXPECT_EQ(ReadString(L"Software\\Norvane Technologies\\ARBALO", L"AGENTUIPORT"), L"second");
  std::wstring text;
  EXPECT_EQ(RegistryReadSz(kArbalo, L"AgentUiPort", 64, text), status::Ok);
  EXPECT_EQ(text, L"second");
}

TEST_F(RegistryTests, EmptyKeyNameMeansTheDefaultKey) {
  WriteRegistryString(L"through empty", L"", L"Value");
  EXPECT_EQ(ReadString(kDefaultRegistryKey, L"Value"), L"through empty");
  WriteRegistryDword(7, kDefaultRegistryKey, L"Number");
  EXPECT_EQ(Raw(L"", L"Number", RegType::Dword), (std::vector<uint8_t>{7, 0, 0, 0}));
  EXPECT_EQ(RegistryWriteSz(L"", L"Other", L"x", false), status::Ok);
  std::wstring text;
  EXPECT_EQ(RegistryReadSz(kDefaultRegistryKey, L"Other", 64, text), status::Ok);
  EXPECT_EQ(text, L"x");
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
      {"exactly fits", kSetup, L"Text", 26, status::Ok, false},
  };
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

TEST_F(RegistryTests, WriteWithoutCreateNeedsAnExistingKey) {
  const std::wstring dialHome = kArbalo + L"\\DialHome";
  EXPECT_EQ(RegistryWriteSz(dialHome, L"Home", L"server", false), status::RegistryOpenFailed);
  EXPECT_EQ(ReadString(dialHome, L"Home"), L"");
  EXPECT_EQ(RegistryWriteSz(dialHome, L"Home", L"server", true), status::Ok);
  EXPECT_EQ(RegistryWriteSz(dialHome, L"Alternate", L"backup", false), status::Ok);
  EXPECT_EQ(ReadString(dialHome, L"Home"), L"server");
  EXPECT_EQ(ReadString(dialHome, L"Alternate"), L"backup");
}

// Threads and, where the registry is a file, processes write at once: no value may be lost.
TEST_F(RegistryTests, ConcurrentWritersAllLand) {
  constexpr uint32_t kValuesEach = 20;
  const auto writeAll = [](uint32_t writer) {
    for (uint32_t value = writer * 100; value < writer * 100 + kValuesEach; ++value) {
      WriteRegistryDword(value, kArbalo, L"V" + std::to_wstring(value));
    }
  };
  const auto writeFromTwoThreads = [&](uint32_t first) {
    std::thread other(writeAll, first + 1);
    writeAll(first);
    other.join();
  };
  uint32_t writers = 2;
#ifndef _WIN32
  std::vector<pid_t> children;
  for (; writers < 6; writers += 2) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      writeFromTwoThreads(writers);
      _exit(0);
    }
    children.push_back(child);
  }
#endif
  writeFromTwoThreads(0);
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

}  // namespace
}  // namespace kro
