// Base64 as the platform library reads and writes it: only canonical text decodes, and what
// decodes encodes back to the very same text; any bytes encode and decode back unchanged.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "hlp/Base64.h"

using kro::fuzz::Check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = kro::fuzz::Text(data, size);
  std::vector<uint8_t> decoded = {0x42};
  if (hlp::Base64::Decode(text, decoded)) {
    Check(hlp::Base64::Encode(decoded.data(), decoded.size()) == text,
          "decoded text does not encode back to itself", text);
  } else {
    Check(decoded == std::vector<uint8_t>{0x42}, "a refused text changed the output", text);
  }

  const std::string encoded = hlp::Base64::Encode(data, size);
  Check(encoded.size() == 4 * ((size + 2) / 3), "the encoding has the wrong length", encoded);
  std::vector<uint8_t> back;
  Check(hlp::Base64::Decode(encoded, back) && back == std::vector<uint8_t>(data, data + size),
        "encoded bytes do not decode back", encoded);
  return 0;
}
