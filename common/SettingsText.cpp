#include "common/SettingsText.h"

#include "hlp/Json.h"

namespace kro {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

}  // namespace

std::string_view SkipByteOrderMark(std::string_view text) {
  if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
    text.remove_prefix(kByteOrderMark.size());
  }
  return text;
}

std::string TextPosition(std::string_view text, size_t offset) {
  size_t line = 1;
  size_t column = 1;
  const size_t end = offset < text.size() ? offset : text.size();
  for (size_t i = 0; i < end; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte == '\n') {
      ++line;
      column = 1;
    } else if ((byte & 0xC0) != 0x80) {  // continuation bytes belong to the character before
      ++column;
    }
  }
  return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

std::unique_ptr<hlp::JsonValue> ParseSettingsText(std::string_view text, std::string& why) {
  try {
    why.clear();
    const std::string_view json = SkipByteOrderMark(text);
    hlp::JsonParser parser;
    std::unique_ptr<hlp::JsonValue> root = parser.Parse(json);
    if (root == nullptr) {
      why = TextPosition(json, parser.ErrorOffset()) + ": " + parser.ErrorText();
    }
    return root;
  } catch (...) {
    why = "out of memory";
    return nullptr;
  }
}

}  // namespace kro
