// The enrolment settings as JSON: the merge into the agent's record ("UpdateDialHomeInfo"),
// the start-up part of an enrolment message, and the record written back as JSON and as the
// settings line, which must read back with the names and ports the merge accepted.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include "core/KroStatus.h"
#include "dialhome/DialHomeInfo.h"
#include "fuzz/FuzzSupport.h"
#include "hlp/Json.h"

namespace {

using kro::DialHomeInfo;
using kro::fuzz::Check;

// An enrolled agent: every group present, so a merge changes a record that has them all.
constexpr const char* kEnrolled =
    "HomeName:mgmt01,HomePort:8443,HomeSSL:Y,HomeAltPort:8080,HomeAltSSL:N,SystemName:NODE7,"
    "AgentPort:9443,AgentSSL:Y,ProductPort:9444,ProductSSL:Y,StartupMode:Normal,BAPhase1:0,"
    "BAPhase2:24,BAPhase3:48,BAPhase4:24";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The routines hand the text on as a C string: it ends at its first zero byte.
  const std::string json(kro::fuzz::Text(data, size));

  DialHomeInfo record;
  kro::ParseDialHomeInfoLine(record, kEnrolled);
  kro::ParseDialHomeInfoJson(record, json.c_str());

  DialHomeInfo startup = record;
  kro::ParseStartupSettings(startup, json.c_str());

  std::ostringstream out;
  hlp::JsonWriter writer(out);
  if (kro::DialHomeInfoToJson(record, writer) == kro::status::Ok) {
    hlp::JsonParser parser;
    Check(parser.Parse(out.str()) != nullptr, "the record's JSON does not parse", out.str());
  }

  // The merged record is what the agent writes to DialHomeInfo.txt: the names it let through
  // must come back unchanged, and so must every port.
  std::string line;
  if (kro::FormatDialHomeInfo(record, line) != kro::status::Ok) {
    return 0;
  }
  DialHomeInfo reread;
  Check(kro::ParseDialHomeInfoLine(reread, line) == kro::status::Ok,
        "the merged record's line does not parse", line);
  Check(reread.homeName == record.homeName && reread.systemName == record.systemName &&
            reread.homePort == record.homePort && reread.homeAltPort == record.homeAltPort &&
            reread.agentPort == record.agentPort && reread.productPort == record.productPort &&
            reread.homeSSL == record.homeSSL && reread.agentSSL == record.agentSSL,
        "the merged record's line reads back otherwise", line);
  return 0;
}
