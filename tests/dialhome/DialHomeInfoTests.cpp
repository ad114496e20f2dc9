#include "dialhome/DialHomeInfo.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>

#include "common/KroStatus.h"
#include "common/WinHelper.h"
#include "dialhome/AtomicFile.h"
#include "hlp/Json.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

const std::wstring kSetupKey = L"SOFTWARE\\Norvane Technologies\\Arbalo\\Setup";

const char* const kFullLine =
    "HomeName:mgmt01,HomePort:8443,HomeSSL:Y,HomeAltPort:8080,HomeAltSSL:N,SystemName:NODE7,"
    "AgentPort:9443,AgentSSL:Y,ProductPort:9444,ProductSSL:Y,StartupMode:Normal,BAPhase1:0,"
    "BAPhase2:24,BAPhase3:48,BAPhase4:24";

DialHomeInfo FullRecord() {
  DialHomeInfo r;
  r.flags = 0x7F;
  r.homeName = "mgmt01";
  r.homePort = 8443;
  r.homeSSL = true;
  r.homeAltPort = 8080;
  r.homeAltSSL = false;
  r.systemName = "NODE7";
  r.agentPort = 9443;
  r.agentSSL = true;
  r.productPort = 9444;
  r.productSSL = true;
  r.startupMode = KroAgent::Normal;
  r.baPhase[1] = 24;
  r.baPhase[2] = 48;
  r.baPhase[3] = 24;
  return r;
}

auto Fields(const DialHomeInfo& r) {
  return std::make_tuple(r.flags, r.homeName, r.homePort, r.homeSSL, r.homeAltPort, r.homeAltSSL,
                         r.systemName, r.agentPort, r.agentSSL, r.productPort, r.productSSL,
                         static_cast<int>(r.startupMode), r.baPhase[0], r.baPhase[1], r.baPhase[2],
                         r.baPhase[3]);
}

/** @brief A record's change, for tables: applied to a default record gives the expectation. */
using Change = void (*)(DialHomeInfo&);

class DialHomeInfoTests : public testing::Test {
 protected:
  void SetUp() override {
    WriteRegistryString(install_.Path().wstring(), kSetupKey, L"InstallDir");
  }

  std::filesystem::path SettingsFile() const { return install_.Path() / "DialHomeInfo.txt"; }
  void WriteSettings(const std::string& content) const {
    install_.Write("DialHomeInfo.txt", content);
  }

  test::ScopedRegistry registry_;
  test::TempDir install_;
};

TEST_F(DialHomeInfoTests, PathDoublesTheSeparatorBeforeTheFileName) {
  const std::wstring folder = install_.Path().wstring();
  const std::wstring expected = folder + kPathSeparator + kPathSeparator + L"DialHomeInfo.txt";
  for (const std::wstring& given : {folder, folder + kPathSeparator}) {
    SCOPED_TRACE(testing::PrintToString(given));
    WriteRegistryString(given, kSetupKey, L"InstallDir");
    std::wstring path;
    ASSERT_EQ(GetDialHomeInfoPath(path), status::Ok);
    EXPECT_EQ(path, expected);
  }

  // The doubled separator is accepted by the file system.
  WriteSettings("HomeName:a\n");
  DialHomeInfo record;
  EXPECT_EQ(ReadDialHomeInfo(record), status::Ok);
  EXPECT_EQ(record.homeName, "a");
}

TEST_F(DialHomeInfoTests, WithoutInstallDirNothingIsRead) {
  test::ScopedRegistry empty;
  std::wstring path = L"unchanged";
  EXPECT_TRUE(status::Failed(GetDialHomeInfoPath(path)));
  EXPECT_EQ(path, L"unchanged");
  DialHomeInfo record;
  EXPECT_TRUE(status::Failed(ReadDialHomeInfo(record)));
  record.flags = DialHomeInfo::kHomeName;
  EXPECT_TRUE(status::Failed(SaveDialHomeInfo(record)));
}

TEST_F(DialHomeInfoTests, LineParserMergesItems) {
  struct Case {
    const char* line;
    long status;
    Change expect;
  };
  const Case cases[] = {
      {"hn=srv,HP=80,hs=yes", status::Ok,
       [](DialHomeInfo& r) {
         r.flags = DialHomeInfo::kHomeName | DialHomeInfo::kHome;
         r.homeName = "srv", r.homePort = 80, r.homeSSL = true;
       }},
      {" SN = my host\t, AgentPort : 9443 ,as=N ", status::Ok,
       [](DialHomeInfo& r) {
         r.flags = DialHomeInfo::kSystemName | DialHomeInfo::kAgent;
         r.systemName = "myhost", r.agentPort = 9443, r.agentSSL = false;
       }},
      {"HAP:70000,HAS:1,PP:-1,PS:t", status::Ok,
       [](DialHomeInfo& r) {
         r.flags = DialHomeInfo::kHome | DialHomeInfo::kProduct;
         r.homeAltPort = 4464, r.homeAltSSL = true, r.productPort = 65535, r.productSSL = true;
       }},
      {"HomePort:80abc", status::Ok,
       [](DialHomeInfo& r) { r.flags = DialHomeInfo::kHome, r.homePort = 80; }},
      {"BAPhase1:0,BA2=1,BAPhase3:721,BAPhase4:720", status::Ok,
       [](DialHomeInfo& r) { r.flags = DialHomeInfo::kPhases, r.baPhase[3] = 720; }},
      {"BAPhase2:1,BAPhase3:0", status::Ok, [](DialHomeInfo&) {}},
      {"StartupMode:pause", status::Ok,
       [](DialHomeInfo& r) {
         r.flags = DialHomeInfo::kStartupMode, r.startupMode = KroAgent::Paused;
       }},
      {"sm=ACTIVE", status::Ok,
       [](DialHomeInfo& r) {
         r.flags = DialHomeInfo::kStartupMode, r.startupMode = KroAgent::Active;
       }},
      {"StartupMode:xyz", status::Ok, [](DialHomeInfo&) {}},
      {"Foo:1,HomePort:81", status::Ok,
       [](DialHomeInfo& r) { r.flags = DialHomeInfo::kHome, r.homePort = 81; }},
      {"Foo:1", status::Ok, [](DialHomeInfo&) {}},
      {"HomePortX:5,HomePort", status::Ok, [](DialHomeInfo&) {}},
      {"HomeName:,HomePort:,SystemName:x", status::Ok,
       [](DialHomeInfo& r) { r.flags = DialHomeInfo::kSystemName, r.systemName = "x"; }},
      {"HomeName:a,HomePort:abc,AgentPort:5", status::MalformedData,
       [](DialHomeInfo& r) { r.flags = DialHomeInfo::kHomeName, r.homeName = "a"; }},
      {"AgentSSL:-", status::MalformedData, [](DialHomeInfo&) {}},
      {"HomeName:a,BAPhase2:4294967296", status::MalformedData,
       [](DialHomeInfo& r) { r.flags = DialHomeInfo::kHomeName, r.homeName = "a"; }},
      {"", status::NotAvailable, [](DialHomeInfo&) {}},
      {" \t\r ", status::NotAvailable, [](DialHomeInfo&) {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    DialHomeInfo record;
    EXPECT_EQ(ParseDialHomeInfoLine(record, c.line), c.status);
    DialHomeInfo expected;
    c.expect(expected);
    EXPECT_EQ(Fields(record), Fields(expected));
  }
}

TEST_F(DialHomeInfoTests, YesNoValuesReadLettersOrNumbers) {
  struct Case {
    const char* value;
    bool yes;
  };
  const Case cases[] = {{"true", true}, {"T", true},  {"y", true}, {"2", true},
                        {"no", false},  {"0", false}, {"F", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    DialHomeInfo record;
    record.homeSSL = !c.yes;
    ASSERT_EQ(ParseDialHomeInfoLine(record, std::string("HomeSSL:") + c.value), status::Ok);
    EXPECT_EQ(record.homeSSL, c.yes);
  }
}

TEST_F(DialHomeInfoTests, SaveWritesOneLineThatReadsBack) {
  std::string text;
  ASSERT_EQ(FormatDialHomeInfo(FullRecord(), text), status::Ok);
  EXPECT_EQ(text, kFullLine);

  DialHomeInfo partial;
  partial.flags = DialHomeInfo::kHomeName | DialHomeInfo::kAgent;
  partial.homeName = "h";
  ASSERT_EQ(FormatDialHomeInfo(partial, text), status::Ok);
  EXPECT_EQ(text, "HomeName:h,AgentPort:13568,AgentSSL:Y");

  ASSERT_EQ(SaveDialHomeInfo(FullRecord()), status::Ok);
  EXPECT_EQ(test::ReadFile(SettingsFile()), std::string(kFullLine) + "\n");
  DialHomeInfo read;
  ASSERT_EQ(ReadDialHomeInfo(read), status::Ok);
  EXPECT_EQ(Fields(read), Fields(FullRecord()));
}

TEST_F(DialHomeInfoTests, NoHomeNameNoWrite) {
  WriteSettings("HomeName:old\n");
  DialHomeInfo record = FullRecord();
  record.flags &= ~DialHomeInfo::kHomeName;
  std::string text = "untouched";
  EXPECT_EQ(FormatDialHomeInfo(record, text), status::NotAvailable);
  EXPECT_EQ(text, "untouched");
  EXPECT_EQ(SaveDialHomeInfo(record), status::NotAvailable);
  EXPECT_EQ(WriteDialHomeInfoFile(SettingsFile().wstring(), record), status::NotAvailable);
  EXPECT_EQ(test::ReadFile(SettingsFile()), "HomeName:old\n");
}

TEST_F(DialHomeInfoTests, ReadTakesOnlyTheFirstLine) {
  struct Case {
    const char* file;  // null: no file
    long status;
    const char* homeName;
  };
  const Case cases[] = {
      {"HomeName:a\nHomePort:81\n", status::Ok, "a"},
      {"HomeName:crlf\r\nHomePort:81\r\n", status::Ok, "crlf"},
      {"\nHomeName:b\n", status::NotAvailable, ""},
      {"", status::FileReadFailed, ""},
      {nullptr, status::FileOpenFailed, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file != nullptr ? c.file : "(none)");
    std::filesystem::remove(SettingsFile());
    if (c.file != nullptr) {
      WriteSettings(c.file);
    }
    DialHomeInfo record;
    EXPECT_EQ(ReadDialHomeInfo(record), c.status);
    EXPECT_EQ(record.homeName, c.homeName);
    EXPECT_EQ(record.flags & DialHomeInfo::kHome, 0u);
  }
}

TEST_F(DialHomeInfoTests, SingleValueIsTheRawText) {
  WriteSettings("HomeName:mgmt01,HomePort=8443,HomeSSL:y,Empty:,Odd;1,SystemName:my host\r\n");
  struct Case {
    const char* key;
    long status;
    const char* value;
  };
  const Case cases[] = {
      {"HomeSSL", status::Ok, "y"},
      {"HomePort", status::Ok, "8443"},
      {"Port", status::Ok, "8443"},
      {"SystemName", status::Ok, "my host"},
      {"homeport", status::NotFound, "before"},
      {"HP", status::NotFound, "before"},
      {"Empty", status::NotAvailable, "before"},
      {"Odd", status::NotAvailable, "before"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    std::string value = "before";
    EXPECT_EQ(GetDialHomeInfoValue(c.key, value), c.status);
    EXPECT_EQ(value, c.value);
  }

  std::string value;
  WriteSettings("HN:1\n");
  EXPECT_EQ(GetDialHomeInfoValue("HomeName", value), status::NotFound);
  WriteSettings("\nHomeName:x\n");
  EXPECT_EQ(GetDialHomeInfoValue("HomeName", value), status::NotAvailable);
}

TEST_F(DialHomeInfoTests, JsonMergeStopsAtTheFirstWrongType) {
  struct Case {
    const char* json;
    long status;
    Change expect;
  };
  const Case cases[] = {
      {R"({"HomeName":"srv","HomePort":70000,"BAPhase2":1,"StartupMode":7,"AgentSSL":false})",
       status::Ok,
       [](DialHomeInfo& r) {
         r.flags = DialHomeInfo::kHomeName | DialHomeInfo::kHome | DialHomeInfo::kPhases |
                   DialHomeInfo::kStartupMode | DialHomeInfo::kAgent;
         r.homeName = "srv", r.homePort = 4464, r.baPhase[1] = 1;
         r.startupMode = static_cast<KroAgent::StartupMode>(7), r.agentSSL = false;
       }},
      {R"({"Other":{"HomeName":"x","a":[1,{}]},"HN":"short","SystemName":"n"})", status::Ok,
       [](DialHomeInfo& r) { r.flags = DialHomeInfo::kSystemName, r.systemName = "n"; }},
      {R"({"HomeName":"a","HomePort":"80","AgentPort":9})", status::Failure,
       [](DialHomeInfo& r) { r.flags = DialHomeInfo::kHomeName, r.homeName = "a"; }},
      {R"({"ProductPort":1.5})", status::Failure, [](DialHomeInfo&) {}},
      {R"({"HomeSSL":1})", status::Failure, [](DialHomeInfo&) {}},
      {R"({"HomeName":5})", status::Failure, [](DialHomeInfo&) {}},
      {R"({"SystemName":"n",)", status::Failure,
       [](DialHomeInfo& r) { r.flags = DialHomeInfo::kSystemName, r.systemName = "n"; }},
      {R"(["HomeName","a"])", status::Failure, [](DialHomeInfo&) {}},
      {"", status::Failure, [](DialHomeInfo&) {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    DialHomeInfo record;
    EXPECT_EQ(ParseDialHomeInfoJson(record, c.json), c.status);
    DialHomeInfo expected;
    c.expect(expected);
    EXPECT_EQ(Fields(record), Fields(expected));
  }
  DialHomeInfo record;
  EXPECT_EQ(ParseDialHomeInfoJson(record, nullptr), status::NotAvailable);
}

TEST_F(DialHomeInfoTests, JsonFormRoundTrips) {
  std::ostringstream out;
  hlp::JsonWriter writer(out);
  ASSERT_EQ(DialHomeInfoToJson(FullRecord(), writer), status::Ok);
  EXPECT_EQ(out.str(),
            R"({"HomeName":"mgmt01","HomePort":8443,"HomeSSL":true,"HomeAltPort":8080,)"
            R"("HomeAltSSL":false,"SystemName":"NODE7","AgentPort":9443,"AgentSSL":true,)"
            R"("ProductPort":9444,"ProductSSL":true,"StartupMode":0,"BAPhase1":0,)"
            R"("BAPhase2":24,"BAPhase3":48,"BAPhase4":24})");
  DialHomeInfo back;
  ASSERT_EQ(ParseDialHomeInfoJson(back, out.str().c_str()), status::Ok);
  EXPECT_EQ(Fields(back), Fields(FullRecord()));

  std::ostringstream none;
  hlp::JsonWriter untouched(none);
  EXPECT_EQ(DialHomeInfoToJson(DialHomeInfo(), untouched), status::NotAvailable);
  EXPECT_EQ(none.str(), "");

  std::ostringstream bad;
  hlp::JsonWriter broken(bad);
  broken.EndObject();  // turns the writer bad
  EXPECT_EQ(DialHomeInfoToJson(FullRecord(), broken), status::Failure);
}

TEST_F(DialHomeInfoTests, StartupSettingsSetModeAndPhaseHours) {
  const auto durations = [](const char* pre, const char* analysis, const char* optimize,
                            const char* post) {
    return std::string(R"({"BAPhaseDuration":{"PreBAPhase":")") + pre + R"(","AnalysisPhase":")" +
           analysis + R"(","OptimizePhase":")" + optimize + R"(","PostAnalysisPhase":")" + post +
           R"("}})";
  };
  struct Case {
    std::string json;
    long status;
    Change expect;  // applied to the starting record below
  };
  const Case cases[] = {
      {R"({"startArbalo":1})", status::Ok,
       [](DialHomeInfo& r) {
         r.flags |= DialHomeInfo::kStartupMode, r.startupMode = KroAgent::Normal;
       }},
      {R"({"startArbalo":0,"BAPhaseDuration":null})", status::Ok,
       [](DialHomeInfo& r) {
         r.flags |= DialHomeInfo::kStartupMode, r.startupMode = KroAgent::Paused;
       }},
      {R"({"startArbalo":5})", status::Ok,
       [](DialHomeInfo& r) {
         r.flags |= DialHomeInfo::kStartupMode, r.startupMode = KroAgent::Active;
       }},
      {R"({"startArbalo":null,"other":1})", status::Ok, [](DialHomeInfo&) {}},
      {durations("3599", "7200", "90000", "0"), status::Ok,
       [](DialHomeInfo& r) {
         r.flags |= DialHomeInfo::kPhases;
         r.baPhase[0] = 0, r.baPhase[1] = 2, r.baPhase[2] = 25, r.baPhase[3] = 0;
       }},
      {durations("0", "0", "0", "3599"), status::Ok,
       [](DialHomeInfo& r) {
         r.flags |= DialHomeInfo::kStartupMode, r.startupMode = KroAgent::Active;
       }},
      {R"({"BAPhaseDuration":{"PreBAPhase":"7200","AnalysisPhase":"7200","OptimizePhase":"7200"}})",
       status::NotAvailable, [](DialHomeInfo&) {}},
      {durations("7200", "abc", "7200", "7200"), status::NotAvailable, [](DialHomeInfo&) {}},
      {durations("7200", "-3600", "7200", "7200"), status::NotAvailable, [](DialHomeInfo&) {}},
      {R"({"BAPhaseDuration":{"PreBAPhase":7200,"AnalysisPhase":"7200","OptimizePhase":"7200",)"
       R"("PostAnalysisPhase":"7200"}})",
       status::NotAvailable, [](DialHomeInfo&) {}},
      {R"({"BAPhaseDuration":[]})", status::NotAvailable, [](DialHomeInfo&) {}},
      {R"({"startArbalo":"1"})", status::NotAvailable, [](DialHomeInfo&) {}},
      {"[]", status::NotAvailable, [](DialHomeInfo&) {}},
      {"{", status::NotAvailable, [](DialHomeInfo&) {}},
  };
  const auto start = [] {
    DialHomeInfo r;
    r.flags = DialHomeInfo::kHomeName;
    r.startupMode = KroAgent::Paused;
    r.baPhase[0] = 1, r.baPhase[1] = 2, r.baPhase[2] = 3, r.baPhase[3] = 4;
    return r;
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    DialHomeInfo record = start();
    EXPECT_EQ(ParseStartupSettings(record, c.json.c_str()), c.status);
    DialHomeInfo expected = start();
    c.expect(expected);
    EXPECT_EQ(Fields(record), Fields(expected));
  }
}

class AtomicFileTests : public testing::Test {
 protected:
  size_t EntriesInFolder() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir_.Path()),
                                             std::filesystem::directory_iterator()));
  }

  test::TempDir dir_;
};

TEST_F(AtomicFileTests, ReplacesContentAndLeavesNoTemporaryFile) {
  const auto file = dir_.Write("DialHomeInfo.txt", "old line\n");
  const std::string big(1 << 20, 'x');
  for (const std::string& content : {std::string("new\n"), std::string(), big}) {
    SCOPED_TRACE(content.size());
    ASSERT_EQ(WriteFileAtomically(file, content), status::Ok);
    EXPECT_EQ(test::ReadFile(file), content);
    EXPECT_EQ(EntriesInFolder(), 1u);
  }
}

TEST_F(AtomicFileTests, FailuresKeepTheOldFileAndCleanUp) {
  // A folder in the target's place makes the final rename fail after the temporary file was
  // written; the folder and its content must survive and nothing else may be left behind.
  const auto blocked = dir_.Path() / "blocked";
  dir_.Write("blocked/keep.txt", "keep");
  EXPECT_EQ(WriteFileAtomically(blocked, "new"), status::FileWriteFailed);
  EXPECT_EQ(test::ReadFile(blocked / "keep.txt"), "keep");
  EXPECT_EQ(EntriesInFolder(), 1u);

  EXPECT_EQ(WriteFileAtomically(dir_.Path() / "missing" / "DialHomeInfo.txt", "new"),
            status::FileOpenFailed);
  EXPECT_EQ(EntriesInFolder(), 1u);
}

}  // namespace
}  // namespace kro
