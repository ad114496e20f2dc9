// The alerts' stored payloads: the parameters column of "alerts.db" as another program or a
// damaged file may have left it, and the alert as the agent hands it to the management server,
// which the dial-home client reads the alert's id back from to mark it delivered.
//
// Input: the id, a line end, the type, a line end, then the parameters column.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "alerts/AlertPayload.h"
#include "core/KroStatus.h"
#include "dialhome/DialHomeFrame.h"
#include "fuzz/FuzzSupport.h"
#include "hlp/Json.h"

namespace {

using kro::fuzz::Check;

std::string_view TakeLine(std::string_view& text) {
  const size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input = kro::fuzz::Text(data, size);
  KroAlerts::AlertRecord record;
  record.id = TakeLine(input);
  record.type = TakeLine(input);
  record.code = 9001;
  record.raised = 1700000000;
  record.updated = 1700000060;
  record.parameters = KroAlerts::ParseParameters(input);

  // What the store writes reads back as the same parameters.
  const std::string column = KroAlerts::ParametersJson(record.parameters);
  Check(KroAlerts::ParseParameters(column) == record.parameters,
        "the parameters column reads back otherwise", column);

  const std::string payload = KroAlerts::AlertJson(record, false);
  const std::unique_ptr<hlp::JsonValue> parsed = hlp::JsonParser().Parse(payload);
  Check(parsed != nullptr && parsed->IsObject(), "an alert's payload is no JSON object", payload);
  const hlp::JsonValue* parameters = parsed->FindMember("parameters");
  Check(parameters != nullptr && parameters->Size() == record.parameters.size(),
        "an alert's payload lost parameters", payload);

  std::string id;
  Check(kro::AlertIdOf(payload, id), "the dial-home client finds no id in an alert", payload);
  Check(id == record.id || !kro::fuzz::IsUtf8(record.id), "the dial-home client reads another id",
        payload);

  const std::string list = KroAlerts::AlertArrayJson({record, record});
  const std::unique_ptr<hlp::JsonValue> listed = hlp::JsonParser().Parse(list);
  Check(listed != nullptr && listed->IsArray() && listed->Size() == 2,
        "the alert list is no JSON array of its alerts", list);
  return 0;
}
