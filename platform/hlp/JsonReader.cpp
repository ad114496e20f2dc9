#include <cmath>
#include <cstdint>
#include <limits>
#include <new>
#include <vector>

#include "hlp/Json.h"
#include "hlp/JsonParse.h"

namespace hlp {
namespace {

struct Item {
  enum class Form : uint8_t { kUnsigned, kNegative, kFraction };

  JsonToken token = JsonToken::None;
  Form form = Form::kUnsigned;  // numbers: which of the fields below holds the value
  bool boolean = false;
  uint64_t magnitude = 0;  // kUnsigned
  int64_t negative = 0;    // kNegative
  double fraction = 0;     // kFraction: written with fraction or exponent, or beyond 64 bits
  std::string text;        // names and strings
};

/** @brief Turns parse events into the token list, stopping cleanly when memory runs out. */
class Recorder {
 public:
  explicit Recorder(std::vector<Item>& items) : items_(items) {}

  bool Null() { return Add(JsonToken::Null); }
  bool Bool(bool b) {
    return Add(JsonToken::Bool, [b](Item& item) { item.boolean = b; });
  }
  bool Int(int i) { return Int64(i); }
  bool Uint(unsigned u) { return Uint64(u); }
  bool Int64(int64_t i) {
    if (i >= 0) {
      return Uint64(static_cast<uint64_t>(i));
    }
    return Add(JsonToken::Number, [i](Item& item) {
      item.form = Item::Form::kNegative;
      item.negative = i;
    });
  }
  bool Uint64(uint64_t u) {
    return Add(JsonToken::Number, [u](Item& item) {
      item.form = Item::Form::kUnsigned;
      item.magnitude = u;
    });
  }
  bool Double(double d) {
    return Add(JsonToken::Number, [d](Item& item) {
      item.form = Item::Form::kFraction;
      item.fraction = d;
    });
  }
  bool String(const char* s, rapidjson::SizeType n, bool) {
    return Add(JsonToken::String, [s, n](Item& item) { item.text.assign(s, n); });
  }
  bool Key(const char* s, rapidjson::SizeType n, bool) {
    return Add(JsonToken::Name, [s, n](Item& item) { item.text.assign(s, n); });
  }
  bool StartObject() { return Add(JsonToken::StartObject); }
  bool EndObject(rapidjson::SizeType) { return Add(JsonToken::EndObject); }
  bool StartArray() { return Add(JsonToken::StartArray); }
  bool EndArray(rapidjson::SizeType) { return Add(JsonToken::EndArray); }

  bool OutOfMemory() const { return outOfMemory_; }

 private:
  bool Add(JsonToken token) {
    return Add(token, [](Item&) {});
  }
  template <typename Fill>
  bool Add(JsonToken token, Fill fill) {
    // An exception must not unwind through the parser; stop it by refusing the event instead.
    try {
      Item item;
      item.token = token;
      fill(item);
      items_.push_back(std::move(item));
      return true;
    } catch (const std::bad_alloc&) {
      outOfMemory_ = true;
      return false;
    }
  }

  std::vector<Item>& items_;
  bool outOfMemory_ = false;
};

}  // namespace

struct JsonReader::Impl {
  /** @brief Steps to the next token; names are remembered unless `keepName`. */
  JsonToken Advance(bool keepName) {
    if (token == JsonToken::End || token == JsonToken::Error) {
      return token;
    }
    if (next < items.size()) {
      current = &items[next++];
      token = current->token;
      if (token == JsonToken::Name && !keepName) {
        name.swap(current->text);  // each name is consumed once; no copy needed
      }
    } else {
      current = nullptr;
      token = error.empty() ? JsonToken::End : JsonToken::Error;
    }
    return token;
  }

  const Item* Number() const { return token == JsonToken::Number ? current : nullptr; }

  std::vector<Item> items;
  size_t next = 0;
  Item* current = nullptr;
  JsonToken token = JsonToken::None;
  std::string name;
  std::string error;  // non-empty when the text is malformed: Error follows the tokens
};

JsonReader::JsonReader(std::string_view text) {
  try {
    impl_ = std::make_unique<Impl>();
    Recorder recorder(impl_->items);
    impl_->error = detail::ParseInto<0>(text, recorder);
    if (recorder.OutOfMemory()) {
      impl_->error = "Out of memory";
    }
  } catch (const std::bad_alloc&) {
    impl_.reset();  // every Next reports Error
  }
}

JsonReader::~JsonReader() = default;

JsonToken JsonReader::Next() {
  return impl_ ? impl_->Advance(false) : JsonToken::Error;
}

JsonToken JsonReader::Token() const {
  return impl_ ? impl_->token : JsonToken::Error;
}

const std::string& JsonReader::GetName() const {
  static const std::string kNone;
  return impl_ ? impl_->name : kNone;
}

bool JsonReader::TryGetInt(int32_t& value) const {
  int64_t wide = 0;
  if (!TryGetInt64(wide) || wide < std::numeric_limits<int32_t>::min() ||
      wide > std::numeric_limits<int32_t>::max()) {
    return false;
  }
  value = static_cast<int32_t>(wide);
  return true;
}

bool JsonReader::TryGetInt64(int64_t& value) const {
  const Item* item = impl_ ? impl_->Number() : nullptr;
  if (!item) {
    return false;
  }
  switch (item->form) {
    case Item::Form::kNegative:
      value = item->negative;
      return true;
    case Item::Form::kUnsigned:
      if (item->magnitude > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        return false;
      }
      value = static_cast<int64_t>(item->magnitude);
      return true;
    case Item::Form::kFraction:
      break;
  }
  return false;
}

bool JsonReader::TryGetUint64(uint64_t& value) const {
  const Item* item = impl_ ? impl_->Number() : nullptr;
  if (!item || item->form != Item::Form::kUnsigned) {
    return false;
  }
  value = item->magnitude;
  return true;
}

bool JsonReader::TryGetDouble(double& value) const {
  const Item* item = impl_ ? impl_->Number() : nullptr;
  if (!item) {
    return false;
  }
  switch (item->form) {
    case Item::Form::kNegative:
      value = static_cast<double>(item->negative);
      break;
    case Item::Form::kUnsigned:
      value = static_cast<double>(item->magnitude);
      break;
    case Item::Form::kFraction:
      // A number beyond the double range reads as an infinity, which no caller can store.
      if (!std::isfinite(item->fraction)) {
        return false;
      }
      value = item->fraction;
      break;
  }
  return true;
}

bool JsonReader::GetBool(bool& value) const {
  if (!impl_ || impl_->token != JsonToken::Bool) {
    return false;
  }
  value = impl_->current->boolean;
  return true;
}

bool JsonReader::GetString(std::string& value) const {
  if (!impl_ || impl_->token != JsonToken::String) {
    return false;
  }
  try {
    value = impl_->current->text;
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool JsonReader::SkipValue() {
  if (!impl_) {
    return false;
  }
  JsonToken token = impl_->token;
  if (token == JsonToken::Name) {
    token = impl_->Advance(false);
  }
  switch (token) {
    case JsonToken::String:
    case JsonToken::Number:
    case JsonToken::Bool:
    case JsonToken::Null:
      return true;
    case JsonToken::StartObject:
    case JsonToken::StartArray:
      break;
    default:
      return false;
  }
  // Names inside the skipped value are not the caller's business: GetName keeps the member's.
  for (size_t depth = 1; depth > 0;) {
    switch (impl_->Advance(true)) {
      case JsonToken::StartObject:
      case JsonToken::StartArray:
        ++depth;
        break;
      case JsonToken::EndObject:
      case JsonToken::EndArray:
        --depth;
        break;
      case JsonToken::End:
      case JsonToken::Error:
        return false;
      default:
        break;
    }
  }
  return true;
}

std::string JsonReader::ErrorText() const {
  if (!impl_) {
    return "Out of memory";
  }
  if (impl_->token != JsonToken::Error) {
    return {};
  }
  try {
    return impl_->error;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

}  // namespace hlp
