// The platform's JSON reader and parser, which every settings file, routine request and reply
// goes through. The pull reader and the strict parser must agree on what is JSON; a parsed
// document must print as JSON that parses to the same text; nothing may be read past the text.
//
// Input: one byte of parser relaxations (comments, trailing commas), then the text.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "hlp/Json.h"

namespace {

using kro::fuzz::Check;

/** @brief Walks the reader to its end, skipping every other container; false on Error. */
bool ReadAll(std::string_view text) {
  hlp::JsonReader reader(text);
  bool skip = false;
  for (;;) {
    const hlp::JsonToken token = reader.Next();
    switch (token) {
      case hlp::JsonToken::End:
        return true;
      case hlp::JsonToken::Error:
        reader.ErrorText();
        return false;
      case hlp::JsonToken::StartObject:
      case hlp::JsonToken::StartArray:
        skip = !skip;
        if (skip && !reader.SkipValue()) {
          return reader.Next() == hlp::JsonToken::End;
        }
        break;
      case hlp::JsonToken::Name:
        reader.GetName();
        break;
      default: {
        int32_t i32 = 0;
        int64_t i64 = 0;
        uint64_t u64 = 0;
        double real = 0;
        bool flag = false;
        std::string string;
        reader.TryGetInt(i32);
        reader.TryGetInt64(i64);
        reader.TryGetUint64(u64);
        reader.TryGetDouble(real);
        reader.GetBool(flag);
        reader.GetString(string);
        break;
      }
    }
  }
}

/** @brief Visits every node with every getter, as the agent's readers do. */
void Visit(const hlp::JsonValue& value, unsigned depth) {
  Check(depth <= hlp::kJsonMaxDepth || (!value.IsObject() && !value.IsArray()),
        "a parsed document nests deeper than the bound");
  value.IsInteger();
  value.GetBool();
  value.GetDouble();
  double real = 0;
  value.TryGetDouble(real);
  value.GetInt64();
  value.GetUint64();
  Check(kro::fuzz::IsUtf8(value.GetString()), "a parsed string is no UTF-8", value.GetString());
  value.AsText();
  for (size_t i = 0; i < value.Size(); ++i) {
    std::string name;
    const hlp::JsonValue* child = value.IsObject() ? value.MemberAt(i, &name) : value.At(i);
    Check(child != nullptr, "a container has fewer children than its size");
    if (value.IsObject()) {
      Check(kro::fuzz::IsUtf8(name), "a parsed name is no UTF-8", name);
      value.FindMember(name);
    }
    Visit(*child, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const unsigned flags = data[0];
  // The text alone on the heap, so a read past its end is caught.
  const std::vector<char> bytes(data + 1, data + size);
  const std::string_view text(bytes.data(), bytes.size());

  hlp::JsonParser strict;
  const std::unique_ptr<hlp::JsonValue> root = strict.Parse(text);
  Check(ReadAll(text) == (root != nullptr), "the reader and the parser disagree on the text", text);

  hlp::JsonParser relaxed(flags);
  const std::unique_ptr<hlp::JsonValue> loose = relaxed.Parse(text);
  Check(root == nullptr || loose != nullptr, "a relaxed parser refuses strict JSON", text);
  if (loose == nullptr) {
    return 0;
  }
  Visit(*loose, 1);
  const std::string printed = loose->ToString();
  const std::unique_ptr<hlp::JsonValue> again = strict.Parse(printed);
  Check(again != nullptr, "a parsed document prints as text that does not parse", printed);
  Check(again->ToString() == printed, "a printed document prints otherwise once parsed", printed);
  return 0;
}
