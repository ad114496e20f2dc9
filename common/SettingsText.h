#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace hlp {
class JsonValue;
}

namespace kro {

/**
 * @brief `text` without the UTF-8 byte-order mark that Notepad and other editors put in front of
 * a file they save as UTF-8: it is not JSON, yet it must not cost the file.
 */
std::string_view SkipByteOrderMark(std::string_view text);

/**
 * @brief Where byte `offset` of `text` lies, as an editor shows it: "line 3, column 14", both
 * from 1, the column counting characters (UTF-8 sequences), not bytes.
 */
std::string TextPosition(std::string_view text, size_t offset);

/**
 * @brief Parses a hand-editable settings file (strict JSON after an optional byte-order mark).
 * Null when the text is no JSON; `why` then says where and why it broke, such as "line 3,
 * column 14: Missing a comma or '}' after an object member. (at byte 57)". Never throws.
 */
std::unique_ptr<hlp::JsonValue> ParseSettingsText(std::string_view text, std::string& why);

}  // namespace kro
