#include "dialhome/DialHomeInfo.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "dialhome/AtomicFile.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

const std::wstring kSetupKey = L"SOFTWARE\\Norvane Technologies\\Arbalo\\Setup";

const char* const kFullLine =
    "HomeName:mgmt01,HomePort:8443,HomeSSL:Y,HomeAltPort:8080,HomeAltSSL:N,SystemName:NODE7,"
    "AgentPort:9443,AgentSSL:Y,ProductPort:9444,ProductSSL:Y,StartupMode:Normal,BAPhase1:0,"
    "BAPhase2:24,BAPhase3:48,BAPhase4:24";
const char* const kFullChanges =
    "flags=0x7f HomeName=mgmt01 HomePort=8443 HomeSSL=1 HomeAltPort=8080 SystemName=NODE7 "
    "AgentPort=9443 ProductPort=9444 ProductSSL=1 BAPhase2=24 BAPhase3=48 BAPhase4=24";

// A record's fields as text, in field order.
std::vector<std::string> Fields(const DialHomeInfo& r) {
  std::ostringstream flags;
  flags << "0x" << std::hex << r.flags;
  const auto s = [](auto value) { return std::to_string(value); };
  return {flags.str(),      r.homeName,       s(r.homePort),   s(r.homeSSL),
          s(r.homeAltPort), s(r.homeAltSSL),  r.systemName,    s(r.agentPort),
          s(r.agentSSL),    s(r.productPort), s(r.productSSL), s(static_cast<int>(r.startupMode)),
          s(r.baPhase[0]),  s(r.baPhase[1]),  s(r.baPhase[2]), s(r.baPhase[3])};
}

// Every field that differs from `base` as "Name=value": one short text states a whole record,
// so a table row also catches a field set that it does not name.
std::string Changes(const DialHomeInfo& r, const DialHomeInfo& base = DialHomeInfo()) {
  const char* const names[] = {"flags",       "HomeName",    "HomePort",   "HomeSSL",
                               "HomeAltPort", "HomeAltSSL",  "SystemName", "AgentPort",
                               "AgentSSL",    "ProductPort", "ProductSSL", "StartupMode",
                               "BAPhase1",    "BAPhase2",    "BAPhase3",   "BAPhase4"};
  const std::vector<std::string> now = Fields(r), old = Fields(base);
  std::string out;
  for (size_t i = 0; i < now.size(); ++i) {
    if (now[i] != old[i]) {
      out += (out.empty() ? "" : " ") + std::string(names[i]) + "=" + now[i];
    }
  }
  return out;
}

class DialHomeInfoTests : public testing::Test {
 protected:
  void SetUp() override {
    WriteRegistryString(install_.Path().wstring(), kSetupKey, L"InstallDir");
  }

  std::filesystem::path SettingsFile() const { return install_.Path() / "DialHomeInfo.txt"; }
  void WriteSettings(const std::string& content) const {
    install_.Write("DialHomeInfo.txt", content);
  }
  static DialHomeInfo Full() {
    DialHomeInfo record;
    EXPECT_EQ(ParseDialHomeInfoLine(record, kFullLine), status::Ok);
    return record;
  }

  test::ScopedRegistry registry_;
  test::TempDir install_;
};

TEST_F(DialHomeInfoTests, PathDoublesTheSeparatorAndNeedsInstallDir) {
  const std::wstring folder = install_.Path().wstring();
  for (const std::wstring& given : {folder, folder + kPathSeparator}) {
    SCOPED_TRACE(testing::PrintToString(given));
    WriteRegistryString(given, kSetupKey, L"InstallDir");
    std::wstring path;
    ASSERT_EQ(GetDialHomeInfoPath(path), status::Ok);
    EXPECT_EQ(path, folder + kPathSeparator + kPathSeparator + L"DialHomeInfo.txt");
  }
  test::ScopedRegistry empty;
  std::wstring path = L"unchanged";
  EXPECT_TRUE(status::Failed(GetDialHomeInfoPath(path)));
  EXPECT_EQ(path, L"unchanged");
  DialHomeInfo record;
  EXPECT_TRUE(status::Failed(ReadDialHomeInfo(record)));
}

TEST_F(DialHomeInfoTests, FirstLineOfTheFileMergesItems) {
  // file: null: no file
  const std::tuple<const char*, long, const char*> cases[] = {
      {"hn=srv,HP=80,hs=yes", status::Ok, "flags=0x3 HomeName=srv HomePort=80 HomeSSL=1"},
      {" SN = my host\t, AgentPort : 9443 ,as=N ", status::Ok,
       "flags=0xc SystemName=myhost AgentPort=9443 AgentSSL=0"},
      {"HAP:70000,HAS:1,PP:-1,PS:t", status::Ok,
       "flags=0x12 HomeAltPort=4464 HomeAltSSL=1 ProductPort=65535 ProductSSL=1"},
      // Yes/no values: a letter counts when it is Y or T, anything else is read as a number.
      {"HomeSSL:T,AgentSSL:no", status::Ok, "flags=0xa HomeSSL=1 AgentSSL=0"},
      {"HomePort:80abc", status::Ok, "flags=0x2 HomePort=80"},
      {"BAPhase1:0,BA2=1,BAPhase3:721,BAPhase4:720", status::Ok, "flags=0x40 BAPhase4=720"},
      {"BAPhase2:1,BAPhase3:0", status::Ok, ""},
      {"StartupMode:pause", status::Ok, "flags=0x20 StartupMode=1"},
      {"sm=ACTIVE", status::Ok, "flags=0x20 StartupMode=2"},
      {"Foo:1,HomePort:81", status::Ok, "flags=0x2 HomePort=81"},
      {"HomePortX:5,HomePort", status::Ok, ""},
      {"HomeName:,HomePort:,SystemName:x", status::Ok, "flags=0x4 SystemName=x"},
      {"HomeName:a,HomePort:abc,AgentPort:5", status::MalformedData, "flags=0x1 HomeName=a"},
      {"HomeName:a,BAPhase2:4294967296", status::MalformedData, "flags=0x1 HomeName=a"},
      {" \t\r ", status::NotAvailable, ""},
      // Only the first line counts.
      {"HomeName:crlf\r\nHomePort:81\r\n", status::Ok, "flags=0x1 HomeName=crlf"},
      {"\nHomeName:b\n", status::NotAvailable, ""},
      {"", status::FileReadFailed, ""},
      {nullptr, status::FileOpenFailed, ""},
  };
  for (const auto& [file, wantStatus, changes] : cases) {
    SCOPED_TRACE(file != nullptr ? file : "(none)");
    std::filesystem::remove(SettingsFile());
    if (file != nullptr) {
      WriteSettings(file);
    }
    DialHomeInfo record;
    EXPECT_EQ(ReadDialHomeInfo(record), wantStatus);
    EXPECT_EQ(Changes(record), changes);
  }
  // The parser alone: an empty line is no settings line.
  DialHomeInfo record;
  EXPECT_EQ(ParseDialHomeInfoLine(record, ""), status::NotAvailable);
}

TEST_F(DialHomeInfoTests, SaveWritesOneLineThatReadsBack) {
  EXPECT_EQ(Changes(Full()), kFullChanges);
  std::string text;
  ASSERT_EQ(FormatDialHomeInfo(Full(), text), status::Ok);
  EXPECT_EQ(text, kFullLine);

  DialHomeInfo partial;
  partial.flags = DialHomeInfo::kHomeName | DialHomeInfo::kAgent;
  partial.homeName = "h";
  ASSERT_EQ(FormatDialHomeInfo(partial, text), status::Ok);
  EXPECT_EQ(text, "HomeName:h,AgentPort:13568,AgentSSL:Y");

  ASSERT_EQ(SaveDialHomeInfo(Full()), status::Ok);
  EXPECT_EQ(test::ReadFile(SettingsFile()), std::string(kFullLine) + "\n");
  DialHomeInfo read;
  ASSERT_EQ(ReadDialHomeInfo(read), status::Ok);
  EXPECT_EQ(Changes(read), kFullChanges);

  // Without a home name nothing is written.
  DialHomeInfo nameless = Full();
  nameless.flags &= ~DialHomeInfo::kHomeName;
  EXPECT_EQ(FormatDialHomeInfo(nameless, text), status::NotAvailable);
  EXPECT_EQ(text, "HomeName:h,AgentPort:13568,AgentSSL:Y");
  EXPECT_EQ(SaveDialHomeInfo(nameless), status::NotAvailable);
  EXPECT_EQ(WriteDialHomeInfoFile(SettingsFile().wstring(), nameless), status::NotAvailable);
  EXPECT_EQ(test::ReadFile(SettingsFile()), std::string(kFullLine) + "\n");
}

TEST_F(DialHomeInfoTests, JsonMergeStopsAtTheFirstWrongType) {
  const std::tuple<const char*, long, const char*> cases[] = {
      {R"({"HomeName":"srv","HomePort":70000,"BAPhase2":1,"StartupMode":7,"AgentSSL":false})",
       status::Ok, "flags=0x6b HomeName=srv HomePort=4464 AgentSSL=0 StartupMode=7 BAPhase2=1"},
      {R"({"Other":{"HomeName":"x","a":[1,{}]},"HN":"short","SystemName":"n"})", status::Ok,
       "flags=0x4 SystemName=n"},
      {R"({"HomeName":"a","HomePort":"80","AgentPort":9})", status::Failure,
       "flags=0x1 HomeName=a"},
      {R"({"ProductPort":1.5})", status::Failure, ""},
      {R"({"HomeName":5})", status::Failure, ""},
      {R"({"SystemName":"n",)", status::Failure, "flags=0x4 SystemName=n"},
      {R"(["HomeName","a"])", status::Failure, ""},
      {nullptr, status::NotAvailable, ""},
  };
  for (const auto& [json, wantStatus, changes] : cases) {
    SCOPED_TRACE(json != nullptr ? json : "(null)");
    DialHomeInfo record;
    EXPECT_EQ(ParseDialHomeInfoJson(record, json), wantStatus);
    EXPECT_EQ(Changes(record), changes);
  }
}

// A name goes into the settings line as it stands, so one that the line cannot give back
// unchanged would come back as other items: another home, another agent port, TLS off.
TEST_F(DialHomeInfoTests, NamesRoundTripThroughTheLineOrAreRefused) {
  // value: as JSON text
  const std::pair<const char*, bool> cases[] = {
      {"mgmt01.example.com", true},
      {"caf\xc3\xa9", true},
      {"mgmt01,AgentSSL:N,AgentPort:80,HomeName:evil.example", false},
      {"a:b", false},
      {"a=b", false},
      {"a b", false},
      {"a\\u0000b", false},
      {"srvHomePort", false},
      {"", false},
  };
  for (const char* key : {"HomeName", "SystemName"}) {
    for (const auto& [wantValue, writable] : cases) {
      SCOPED_TRACE(std::string(key) + "=" + wantValue);
      DialHomeInfo record = Full();
      const DialHomeInfo before = record;
      const std::string json = std::string("{\"") + key + "\":\"" + wantValue + "\"}";
      EXPECT_EQ(ParseDialHomeInfoJson(record, json.c_str()),
                writable ? status::Ok : status::NotAvailable);
      if (!writable) {
        EXPECT_EQ(Changes(record, before), "");
        (std::string(key) == "HomeName" ? record.homeName : record.systemName) = "x,AgentPort:1";
        std::string line;
        EXPECT_EQ(FormatDialHomeInfo(record, line), status::NotAvailable);
        continue;
      }
      std::string line;
      ASSERT_EQ(FormatDialHomeInfo(record, line), status::Ok);
      DialHomeInfo back;
      ASSERT_EQ(ParseDialHomeInfoLine(back, line), status::Ok);
      EXPECT_EQ(Changes(back), Changes(record));
      WriteSettings(line + "\n");
      std::string value;
      ASSERT_EQ(GetDialHomeInfoValue(key, value), status::Ok);
      EXPECT_EQ(value, std::string(key) == "HomeName" ? record.homeName : record.systemName);
    }
  }
}

TEST(AtomicFileTests, ReplacesContentOrKeepsTheOldFileAndLeavesNoTemporaryFile) {
  test::TempDir dir;
  const auto entries = [&dir] {
    return std::distance(std::filesystem::directory_iterator(dir.Path()),
                         std::filesystem::directory_iterator());
  };
  const auto file = dir.Write("DialHomeInfo.txt", "old line\n");
  for (const std::string& content :
       {std::string("new\n"), std::string(), std::string(1 << 20, 'x')}) {
    SCOPED_TRACE(content.size());
    ASSERT_EQ(WriteFileAtomically(file, content), status::Ok);
    EXPECT_EQ(test::ReadFile(file), content);
    EXPECT_EQ(entries(), 1);
  }

  // A folder in the target's place makes the final rename fail after the temporary file was
  // written; the folder and its content must survive and nothing else may be left behind.
  std::filesystem::remove(file);
  const auto blocked = dir.Path() / "blocked";
  dir.Write("blocked/keep.txt", "keep");
  EXPECT_EQ(WriteFileAtomically(blocked, "new"), status::FileWriteFailed);
  EXPECT_EQ(test::ReadFile(blocked / "keep.txt"), "keep");
  EXPECT_EQ(entries(), 1);
  EXPECT_EQ(WriteFileAtomically(dir.Path() / "missing" / "DialHomeInfo.txt", "new"),
            status::FileOpenFailed);
  EXPECT_EQ(entries(), 1);
}

}  // namespace
}  // namespace kro
