#include "server/JobRecord.h"

#include <cstring>
#include <limits>
#include <new>

#include "core/KroStatus.h"

namespace kro {
namespace {

uint32_t ReadWord(const char* at) {
  uint32_t value = 0;
  std::memcpy(&value, at, sizeof(value));
  return value;
}

void WriteWord(char* at, uint32_t value) {
  std::memcpy(at, &value, sizeof(value));
}

size_t StoredLength(const char* text) {
  return text != nullptr ? std::strlen(text) + 1 : 0;
}

}  // namespace

long BuildJobRecord(const char* name, const char* first, const char* second,
                    std::vector<char>& record) {
  const size_t nameLength = StoredLength(name);
  const size_t firstLength = StoredLength(first);
  const size_t secondLength = StoredLength(second);
  const uint64_t total =
      uint64_t{kOutboundJobHeaderBytes} + nameLength + firstLength + secondLength;
  if (total > std::numeric_limits<uint32_t>::max()) {
    return status::NotAvailable;
  }
  try {
    record.assign(static_cast<size_t>(total), '\0');
  } catch (...) {
    return status::OutOfMemory;
  }
  char* at = record.data();
  WriteWord(at, static_cast<uint32_t>(total));
  WriteWord(at + 4, static_cast<uint32_t>(nameLength));
  WriteWord(at + 8, static_cast<uint32_t>(firstLength));
  WriteWord(at + 12, static_cast<uint32_t>(secondLength));
  at += kOutboundJobHeaderBytes;
  for (const auto& [text, length] : {std::pair{name, nameLength}, std::pair{first, firstLength},
                                     std::pair{second, secondLength}}) {
    if (length != 0) {
      std::memcpy(at, text, length);
      at += length;
    }
  }
  return status::Ok;
}

long ReadInboundJobRecord(const char* record, size_t size, InboundJobRecord& out) {
  if (record == nullptr || size < kInboundJobHeaderBytes) {
    return status::MalformedData;
  }
  const uint64_t total = ReadWord(record);
  const uint64_t nameLength = ReadWord(record + 8);
  const uint64_t firstLength = ReadWord(record + 12);
  const uint64_t secondLength = ReadWord(record + 16);
  // Sums in 64 bits: three 32-bit lengths cannot wrap there.
  const uint64_t needed = kInboundJobHeaderBytes + nameLength + firstLength + secondLength;
  if (total > size || needed > total) {
    return status::MalformedData;
  }
  // The texts should end in a zero; one that does not is cut at its stated length instead.
  auto copy = [](const char* text, uint64_t length) {
    return std::string(text, strnlen(text, static_cast<size_t>(length)));
  };
  try {
    const char* at = record + kInboundJobHeaderBytes;
    out.name = copy(at, nameLength);
    at += nameLength;
    out.first = copy(at, firstLength);
    at += firstLength;
    out.second = copy(at, secondLength);
  } catch (...) {
    return status::OutOfMemory;
  }
  return status::Ok;
}

size_t ForEachInboundJobRecord(const char* data, size_t size,
                               const std::function<void(const char*, size_t)>& visit) {
  size_t visited = 0;
  size_t offset = 0;
  while (data != nullptr && size - offset >= sizeof(uint32_t)) {
    const size_t total = ReadWord(data + offset);
    if (total < sizeof(uint32_t) || total > size - offset) {
      break;
    }
    visit(data + offset, total);
    ++visited;
    offset += total;
  }
  return visited;
}

}  // namespace kro
