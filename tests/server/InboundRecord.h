#pragma once

#include <cstdint>
#include <string>

namespace kro::test {

/** @brief A job record as the upper tier sends it: five words, then the texts with their zeros. */
inline std::string InboundRecord(const std::string& name, const std::string& first,
                                 const std::string& second) {
  auto word = [](uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
  const auto total = static_cast<uint32_t>(20 + name.size() + first.size() + second.size() + 3);
  return word(total) + word(0) + word(static_cast<uint32_t>(name.size() + 1)) +
         word(static_cast<uint32_t>(first.size() + 1)) +
         word(static_cast<uint32_t>(second.size() + 1)) + name + '\0' + first + '\0' + second +
         '\0';
}

}  // namespace kro::test
