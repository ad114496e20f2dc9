#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kro {

// The dial-home message travels as a framed record: a little-endian header, the record's name
// with its zero, then the JSON payload with its zero. The request's header has five 32-bit
// fields (total, 0, name size, 0, payload size); the server's reply has four (total, name size,
// 0, payload size). Both layouts are what the management server expects byte for byte.

/** @brief Name of every record exchanged with the management server. */
inline constexpr std::string_view kDialHomeRecordName = "DialHome";
/** @brief Bytes of the record name as framed: "DialHome" and its zero. */
inline constexpr uint32_t kDialHomeNameSize = 9;
/** @brief Request header (five 32-bit fields) plus the name. */
inline constexpr size_t kRequestRecordPrefix = 20 + kDialHomeNameSize;
/** @brief Reply header: four 32-bit fields. */
inline constexpr size_t kReplyHeaderSize = 16;
/** @brief Room for the messages of one report. */
inline constexpr size_t kMessageBufferSize = 0x100000;

/** @brief Outgoing messages of one report: the records end to end, zero-filled behind them. */
struct MessageBuffer {
  std::vector<char> bytes;  // empty: no buffer
  size_t used = 0;
  uint32_t count = 0;
};

/**
 * @brief The request record carrying `payload` (a terminating zero is added; an empty payload
 * has payload size 0). 0x80000030 when memory runs out.
 */
long BuildRequestRecord(std::string_view payload, std::string& record);

/**
 * @brief Appends a record behind the used part and counts it. 0x80000114 without a buffer,
 * 0x80000195 for an empty record, 0x80000191 when it does not fit in the remaining space.
 */
long AppendRecord(MessageBuffer& buffer, std::string_view record);

/**
 * @brief Checks a reply record of `size` received bytes and returns its JSON text (up to the
 * payload's first zero byte, never past the payload). 0x80000110 when the header does not fit,
 * the total exceeds the bytes received or is below header + name + payload, the name size is
 * not 9, the third field is not 0, the payload size is negative, or the name is not "DialHome"
 * (case aside). Never reads outside [data, data + size).
 */
long ParseReplyRecord(const char* data, size_t size, std::string& json);

/**
 * @brief Reads the server's verdict. 0x80000110 when the text is no JSON object or its
 * "result" is missing or not a string; otherwise 0 with `accepted` true exactly for "success"
 * (case-sensitive). 0x80000030 when memory runs out.
 */
long ParseReplyResult(std::string_view json, bool& accepted);

/** @brief The alert's id: its JSON member "id", a string or a number. False when it has none. */
bool AlertIdOf(std::string_view alertText, std::string& id);

}  // namespace kro
