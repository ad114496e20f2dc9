// "DialHomeInfo.txt": the settings line as the agent reads it at start-up, and the promise the
// writer makes about it: whatever the reader merged, the line it formats reads back the same.

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/KroStatus.h"
#include "dialhome/DialHomeInfo.h"
#include "fuzz/FuzzSupport.h"

namespace {

using kro::DialHomeInfo;
using kro::fuzz::Check;

bool SameRecord(const DialHomeInfo& a, const DialHomeInfo& b) {
  bool same = a.flags == b.flags && a.homeName == b.homeName && a.homePort == b.homePort &&
              a.homeSSL == b.homeSSL && a.homeAltPort == b.homeAltPort &&
              a.homeAltSSL == b.homeAltSSL && a.systemName == b.systemName &&
              a.agentPort == b.agentPort && a.agentSSL == b.agentSSL &&
              a.productPort == b.productPort && a.productSSL == b.productSSL &&
              a.startupMode == b.startupMode;
  for (int i = 0; i < 4; ++i) {
    same = same && a.baPhase[i] == b.baPhase[i];
  }
  return same;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The reader hands the parser the file's first line without its line end.
  const std::string text(kro::fuzz::Text(data, size));
  const std::string line = text.substr(0, text.find('\n'));

  DialHomeInfo record;
  kro::ParseDialHomeInfoLine(record, line);
  kro::IsSettingsLineText(line);

  std::string formatted;
  if (kro::FormatDialHomeInfo(record, formatted) != kro::status::Ok) {
    return 0;
  }
  Check(formatted.find('\n') == std::string::npos, "a formatted line holds a line end", formatted);
  // Read back onto the same record: items the line does not carry keep their values, as in
  // the agent, which reads the file into the record it keeps.
  DialHomeInfo again = record;
  Check(kro::ParseDialHomeInfoLine(again, formatted) == kro::status::Ok,
        "the formatted line does not parse", formatted);
  Check(SameRecord(record, again), "the formatted line reads back as another record", formatted);
  // And onto a fresh record, as a restarted agent does: every present group is in the line.
  DialHomeInfo fresh;
  kro::ParseDialHomeInfoLine(fresh, formatted);
  std::string reformatted;
  Check(kro::FormatDialHomeInfo(fresh, reformatted) == kro::status::Ok && reformatted == formatted,
        "the formatted line does not format again the same", formatted + " | " + reformatted);
  return 0;
}
