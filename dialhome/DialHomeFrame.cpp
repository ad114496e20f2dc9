#include "dialhome/DialHomeFrame.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "core/KroStatus.h"
#include "core/StringCompare.h"
#include "hlp/Json.h"

namespace kro {

namespace {

void PutLe32(std::string& out, uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
  }
}

uint32_t GetLe32(const char* at) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) {
    value = (value << 8) | static_cast<unsigned char>(at[i]);
  }
  return value;
}

}  // namespace

long BuildRequestRecord(std::string_view payload, std::string& record) try {
  // The payload must be small enough for its size field; the message buffer is far smaller.
  if (payload.size() >= UINT32_MAX - kRequestRecordPrefix) {
    return status::BufferTooSmall;
  }
  const uint32_t payloadSize = payload.empty() ? 0 : static_cast<uint32_t>(payload.size() + 1);
  record.clear();
  record.reserve(kRequestRecordPrefix + payloadSize);
  PutLe32(record, static_cast<uint32_t>(kRequestRecordPrefix) + payloadSize);
  PutLe32(record, 0);
  PutLe32(record, kDialHomeNameSize);
  PutLe32(record, 0);
  PutLe32(record, payloadSize);
  record.append(kDialHomeRecordName);
  record.push_back('\0');
  if (payloadSize != 0) {
    record.append(payload);
    record.push_back('\0');
  }
  return status::Ok;
} catch (...) {
  return status::OutOfMemory;
}

long AppendRecord(MessageBuffer& buffer, std::string_view record) {
  if (buffer.bytes.empty()) {
    return status::NotAvailable;
  }
  if (record.empty()) {
    return status::EmptyRecord;
  }
  if (buffer.used > buffer.bytes.size() || record.size() > buffer.bytes.size() - buffer.used) {
    return status::BufferTooSmall;
  }
  std::memcpy(buffer.bytes.data() + buffer.used, record.data(), record.size());
  buffer.used += record.size();
  ++buffer.count;
  return status::Ok;
}

long ParseReplyRecord(const char* data, size_t size, std::string& json) {
  if (data == nullptr || size < kReplyHeaderSize) {
    return status::MalformedData;
  }
  const uint64_t total = GetLe32(data);
  const uint64_t nameSize = GetLe32(data + 4);
  const uint32_t reserved = GetLe32(data + 8);
  const int32_t payloadSize = static_cast<int32_t>(GetLe32(data + 12));
  if (total > size || nameSize != kDialHomeNameSize || reserved != 0 || payloadSize < 0) {
    return status::MalformedData;
  }
  // 64-bit sums: a payload size near 2^31 must not wrap past the check.
  if (total < kReplyHeaderSize + nameSize + static_cast<uint64_t>(payloadSize)) {
    return status::MalformedData;
  }
  const char* name = data + kReplyHeaderSize;
  for (size_t i = 0; i < kDialHomeNameSize; ++i) {
    const char expected = i < kDialHomeRecordName.size() ? kDialHomeRecordName[i] : '\0';
    if (kro::FoldAscii(name[i]) != kro::FoldAscii(expected)) {
      return status::MalformedData;
    }
  }
  const char* payload = name + kDialHomeNameSize;
  const size_t length = static_cast<size_t>(payloadSize);
  const char* zero = static_cast<const char*>(std::memchr(payload, '\0', length));
  json.assign(payload, zero != nullptr ? static_cast<size_t>(zero - payload) : length);
  return status::Ok;
}

long ParseReplyResult(std::string_view json, bool& accepted) try {
  accepted = false;
  hlp::JsonParser parser;
  const std::unique_ptr<hlp::JsonValue> root = parser.Parse(json);
  if (root == nullptr || !root->IsObject()) {
    return status::MalformedData;
  }
  const hlp::JsonValue* result = root->FindMember("result");
  if (result == nullptr || !result->IsString()) {
    return status::MalformedData;
  }
  accepted = result->GetString() == "success";
  return status::Ok;
} catch (...) {
  return status::OutOfMemory;
}

bool AlertIdOf(std::string_view alertText, std::string& id) try {
  hlp::JsonParser parser;
  const std::unique_ptr<hlp::JsonValue> root = parser.Parse(alertText);
  if (root == nullptr) {
    return false;
  }
  const hlp::JsonValue* member = root->FindMember("id");
  if (member == nullptr || !(member->IsString() || member->IsNumber())) {
    return false;
  }
  id = member->AsText();
  return true;
} catch (...) {
  return false;
}

}  // namespace kro
