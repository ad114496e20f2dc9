#include "hlp/Base64.h"

#include <algorithm>
#include <limits>

#include <openssl/evp.h>

namespace hlp {
namespace {

// EVP takes int lengths; whole groups keep padding out of the middle of the text.
constexpr size_t kEncodeChunk = 3 * (1u << 20);
constexpr size_t kDecodeChunk = 4 * (1u << 20);

}  // namespace

std::string Base64::Encode(const void* data, size_t size) {
  if (size > std::numeric_limits<size_t>::max() / 4 * 3 - 3) {
    return {};
  }
  try {
    std::string text(4 * ((size + 2) / 3), '\0');
    const auto* in = static_cast<const unsigned char*>(data);
    auto* out = reinterpret_cast<unsigned char*>(text.data());
    for (size_t done = 0; done < size;) {
      const size_t n = std::min(kEncodeChunk, size - done);
      // Each block also writes a NUL after itself: the next block's first byte, or at the end
      // the string's own terminator.
      out += EVP_EncodeBlock(out, in + done, static_cast<int>(n));
      done += n;
    }
    return text;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

bool Base64::Decode(std::string_view text, std::vector<uint8_t>& out) {
  if (text.size() % 4 != 0) {
    return false;
  }
  try {
    std::vector<uint8_t> bytes(text.size() / 4 * 3);
    const auto* in = reinterpret_cast<const unsigned char*>(text.data());
    size_t written = 0;
    for (size_t done = 0; done < text.size();) {
      const size_t n = std::min(kDecodeChunk, text.size() - done);
      const int decoded = EVP_DecodeBlock(bytes.data() + written, in + done, static_cast<int>(n));
      if (decoded < 0) {
        return false;
      }
      written += static_cast<size_t>(decoded);
      done += n;
    }
    // EVP_DecodeBlock counts the zero bytes it makes of padding.
    const size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    if (written < padding) {
      return false;
    }
    bytes.resize(written - padding);
    // It also skips white space and ignores bits that do not fit; only text that encodes back
    // to itself is canonical.
    if (Encode(bytes.data(), bytes.size()) != text) {
      return false;
    }
    out = std::move(bytes);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace hlp
