#include "alerts/AlertPayload.h"

#include <memory>
#include <sstream>

#include "hlp/Json.h"

namespace KroAlerts {
namespace {

void WriteAlert(hlp::JsonWriter& writer, const AlertRecord& record, bool withSent) {
  writer.Object();
  writer.Name("id");
  writer.String(record.id);
  writer.Name("type");
  writer.String(record.type);
  writer.Name("code");
  writer.Uint(record.code);
  writer.Name("schema");
  writer.Int(record.schema);
  writer.Name("severity");
  writer.Int(record.severity);
  writer.Name("parameters");
  writer.Array();
  for (const std::string& parameter : record.parameters) {
    writer.String(parameter);
  }
  writer.EndArray();
  writer.Name("raised");
  writer.Int64(record.raised);
  writer.Name("updated");
  writer.Int64(record.updated);
  if (withSent) {
    writer.Name("sent");
    writer.Bool(record.sent);
  }
  writer.EndObject();
}

}  // namespace

std::string ParametersJson(const std::vector<std::string>& parameters) {
  std::ostringstream out;
  hlp::JsonWriter writer(out);
  writer.Array();
  for (const std::string& parameter : parameters) {
    writer.String(parameter);
  }
  writer.EndArray();
  return out.str();
}

std::vector<std::string> ParseParameters(std::string_view text) {
  std::vector<std::string> parameters;
  const std::unique_ptr<hlp::JsonValue> root = hlp::JsonParser().Parse(text);
  if (root == nullptr || !root->IsArray()) {
    return parameters;
  }
  for (size_t i = 0; i < root->Size(); ++i) {
    parameters.push_back(root->At(i)->AsText());
  }
  return parameters;
}

std::string AlertJson(const AlertRecord& record, bool withSent) {
  std::ostringstream out;
  hlp::JsonWriter writer(out);
  WriteAlert(writer, record, withSent);
  return out.str();
}

std::string AlertArrayJson(const std::vector<AlertRecord>& records) {
  std::ostringstream out;
  hlp::JsonWriter writer(out);
  writer.Array();
  for (const AlertRecord& record : records) {
    WriteAlert(writer, record, true);
  }
  writer.EndArray();
  return out.str();
}

}  // namespace KroAlerts
