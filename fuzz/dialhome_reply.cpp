// The management server's reply to a report: the framed record as it comes off the wire, its
// JSON verdict, and the alert ids the client reads from the alerts it reported.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "core/KroStatus.h"
#include "dialhome/DialHomeFrame.h"
#include "fuzz/FuzzSupport.h"

using kro::fuzz::Check;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A body of exactly `size` bytes on the heap, so a read past it is caught.
  const std::vector<char> body(data, data + size);
  std::string json = "unchanged";
  const long st = kro::ParseReplyRecord(body.data(), body.size(), json);
  if (st == kro::status::Ok) {
    // The JSON is the payload up to its first zero: it lies inside the record.
    Check(json.size() + kro::kReplyHeaderSize + kro::kDialHomeNameSize <= size,
          "the reply's JSON runs past the record", json);
    Check(json.find('\0') == std::string::npos, "the reply's JSON holds a zero byte", json);
  } else {
    Check(st == kro::status::MalformedData && json == "unchanged",
          "a refused reply changed the JSON or gave an unexpected status");
    // The client reads a failed exchange's verdict from the body as text all the same.
    json.assign(body.begin(), body.end());
  }

  bool accepted = true;
  const long verdict = kro::ParseReplyResult(json, accepted);
  Check(verdict == kro::status::Ok || !accepted, "a malformed verdict counts as accepted", json);

  std::string id;
  kro::AlertIdOf(json, id);

  // A request record always frames what it carries: header, name, payload and its zero.
  std::string record;
  if (kro::BuildRequestRecord(json, record) == kro::status::Ok) {
    uint32_t total = 0;
    std::memcpy(&total, record.data(), sizeof(total));
    Check(total == record.size() &&
              record.size() == kro::kRequestRecordPrefix + (json.empty() ? 0 : json.size() + 1),
          "a request record's size field is wrong", json);
  }
  return 0;
}
