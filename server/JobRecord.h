#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kro {

/** @brief Header of a record this side builds: total size, name, first and second text length. */
inline constexpr size_t kOutboundJobHeaderBytes = 4 * sizeof(uint32_t);

/**
 * @brief Header of a record the upper tier sends: one word more than ours, after the total
 * size, which processing does not read.
 */
inline constexpr size_t kInboundJobHeaderBytes = 5 * sizeof(uint32_t);

/** @brief The texts of one inbound record, copied out (each up to its first zero byte). */
struct InboundJobRecord {
  std::string name;
  std::string first;
  std::string second;
};

/**
 * @brief Builds an outbound JobRecord. A null text is absent (length 0); a present one is
 * stored with its terminating zero, counted in its length. 0, 0x80000030 when memory runs out,
 * 0x80000114 when the record would not fit the 32-bit size field.
 */
long BuildJobRecord(const char* name, const char* first, const char* second,
                    std::vector<char>& record);

/**
 * @brief Copies the texts out of one inbound record of `size` bytes. 0x80000110 when the
 * header or the text lengths do not fit inside the record (nothing is read beyond it).
 */
long ReadInboundJobRecord(const char* record, size_t size, InboundJobRecord& out);

/**
 * @brief Walks a buffer of inbound records by their total sizes and hands each to `visit`.
 * The walk stops at a size that cannot be a record (below one word) or that runs past the
 * buffer, since no later record can be found from there. Returns the number of records visited.
 */
size_t ForEachInboundJobRecord(const char* data, size_t size,
                               const std::function<void(const char*, size_t)>& visit);

}  // namespace kro
