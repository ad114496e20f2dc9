#pragma once

// Internal to hlp: the parse loop that JsonReader and JsonParser share.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include "hlp/Json.h"
#include "hlp/JsonNumber.h"

namespace hlp::detail {

/**
 * @brief Parse flags every caller gets: no recursion, strict UTF-8, numbers as their text.
 *
 * RapidJSON only checks a number's grammar here; its own decimal-to-double conversion is never
 * used, because both of its variants index their power-of-ten tables with an exponent that a
 * hostile text can push far outside them. ConvertJsonNumber does the conversion instead.
 */
inline constexpr unsigned kBaseParseFlags = rapidjson::kParseIterativeFlag |
                                            rapidjson::kParseValidateEncodingFlag |
                                            rapidjson::kParseNumbersAsStringsFlag;

/**
 * @brief Longest text the parser accepts. Every input is far smaller (a request body is at
 * most 64 MiB); the bound also keeps the parser's exponent arithmetic, which grows with the
 * length of a number's digits, within a 32-bit int.
 */
inline constexpr size_t kJsonMaxText = size_t{128} * 1024 * 1024;

/**
 * @brief Forwards parse events to `Target`, refusing nesting deeper than kJsonMaxDepth.
 *
 * The iterative parser keeps its own state on the heap, so depth alone would only cost
 * memory; the bound is what keeps a hostile text small and later walks over the tree shallow.
 */
template <typename Target>
class DepthLimited {
 public:
  explicit DepthLimited(Target& target) : target_(target) {}

  bool Null() { return target_.Null(); }
  bool Bool(bool b) { return target_.Bool(b); }
  bool Int(int i) { return target_.Int(i); }
  bool Uint(unsigned u) { return target_.Uint(u); }
  bool Int64(int64_t i) { return target_.Int64(i); }
  bool Uint64(uint64_t u) { return target_.Uint64(u); }
  bool Double(double d) { return target_.Double(d); }
  bool RawNumber(const char* s, rapidjson::SizeType n, bool /*copy*/) {
    const JsonNumber number = ConvertJsonNumber(std::string_view(s, n));
    switch (number.form) {
      case JsonNumber::Form::kUint:
        return target_.Uint(static_cast<unsigned>(number.magnitude));
      case JsonNumber::Form::kUint64:
        return target_.Uint64(number.magnitude);
      case JsonNumber::Form::kInt:
        return target_.Int(static_cast<int>(number.negative));
      case JsonNumber::Form::kInt64:
        return target_.Int64(number.negative);
      case JsonNumber::Form::kDouble:
        break;
    }
    return target_.Double(number.real);
  }
  bool String(const char* s, rapidjson::SizeType n, bool copy) {
    return Paired(s, n) && target_.String(s, n, copy);
  }
  bool Key(const char* s, rapidjson::SizeType n, bool copy) {
    return Paired(s, n) && target_.Key(s, n, copy);
  }
  bool StartObject() { return Enter() && target_.StartObject(); }
  bool EndObject(rapidjson::SizeType n) {
    --depth_;
    return target_.EndObject(n);
  }
  bool StartArray() { return Enter() && target_.StartArray(); }
  bool EndArray(rapidjson::SizeType n) {
    --depth_;
    return target_.EndArray(n);
  }

  bool TooDeep() const { return tooDeep_; }
  bool LoneSurrogate() const { return loneSurrogate_; }

 private:
  /**
   * @brief False for a string that holds half a surrogate pair. The text itself is checked as
   * UTF-8, but RapidJSON 1.1.0 decodes an escaped low surrogate that follows no high one
   * ("\ude00") into the surrogate's own bytes, which are no UTF-8, and every later reader and
   * writer would then see other text than the parser did. Only an escape can produce them:
   * checked UTF-8 has ED followed by 80..9F alone, a surrogate ED A0..BF.
   */
  bool Paired(const char* s, rapidjson::SizeType n) {
    for (rapidjson::SizeType i = 0; i + 1 < n; ++i) {
      if (static_cast<unsigned char>(s[i]) == 0xED &&
          static_cast<unsigned char>(s[i + 1]) >= 0xA0) {
        loneSurrogate_ = true;
        return false;
      }
    }
    return true;
  }

  bool Enter() {
    if (depth_ == kJsonMaxDepth) {
      tooDeep_ = true;
      return false;
    }
    ++depth_;
    return true;
  }

  Target& target_;
  unsigned depth_ = 0;
  bool tooDeep_ = false;
  bool loneSurrogate_ = false;
};

inline std::string DescribeParseError(std::string_view what, size_t offset) {
  return std::string(what) + " (at byte " + std::to_string(offset) + ")";
}

/**
 * @brief Parses all of `text` into `target`; empty on success, else what went wrong and where.
 * The byte offset of a failure also goes to `errorOffset` when given.
 *
 * `text` need not be NUL-terminated. The parser stops at a NUL byte as if the text ended
 * there, so a NUL before the end is reported as data after the value.
 */
template <unsigned Flags, typename Target>
std::string ParseInto(std::string_view text, Target& target, size_t* errorOffset = nullptr) {
  size_t offset = 0;
  std::string error;
  if (text.size() > kJsonMaxText) {
    error = DescribeParseError("Text longer than " + std::to_string(kJsonMaxText) + " bytes", 0);
  } else {
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::Reader reader;
    DepthLimited<Target> handler(target);
    const rapidjson::ParseResult result = reader.Parse<Flags | kBaseParseFlags>(stream, handler);
    if (handler.TooDeep()) {
      offset = result.Offset();
      error = DescribeParseError("Nesting deeper than " + std::to_string(kJsonMaxDepth) + " levels",
                                 offset);
    } else if (handler.LoneSurrogate()) {
      offset = result.Offset();
      error = DescribeParseError("Escaped surrogate without its pair in a string", offset);
    } else if (result.IsError()) {
      offset = result.Offset();
      error = DescribeParseError(rapidjson::GetParseError_En(result.Code()), offset);
    } else if (stream.Tell() != text.size()) {
      offset = stream.Tell();
      error = DescribeParseError(
          rapidjson::GetParseError_En(rapidjson::kParseErrorDocumentRootNotSingular), offset);
    }
  }
  if (errorOffset != nullptr) {
    *errorOffset = offset;
  }
  return error;
}

}  // namespace hlp::detail
