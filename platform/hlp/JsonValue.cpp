#include <charconv>
#include <cmath>
#include <new>
#include <vector>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "hlp/Json.h"
#include "hlp/JsonParse.h"

namespace hlp {

struct JsonValue::Impl {
  /**
   * @brief Wraps `value` and, eagerly, everything below it.
   *
   * Building the wrappers up front keeps the const accessors free of allocation (so they
   * cannot fail) and of hidden mutation (so threads may share a document). Recursion is
   * bounded by kJsonMaxDepth.
   */
  static std::unique_ptr<JsonValue> Wrap(const rapidjson::Value& value) {
    auto impl = std::make_unique<Impl>();
    impl->value = &value;
    if (value.IsArray()) {
      impl->children.reserve(value.Size());
      for (auto it = value.Begin(); it != value.End(); ++it) {
        impl->children.push_back(Wrap(*it));
      }
    } else if (value.IsObject()) {
      impl->children.reserve(value.MemberCount());
      for (auto it = value.MemberBegin(); it != value.MemberEnd(); ++it) {
        impl->children.push_back(Wrap(it->value));
      }
    }
    return std::unique_ptr<JsonValue>(new JsonValue(std::move(impl)));
  }

  // Declared first so that it goes last: everything below points into it. Set on the root.
  // Its pool allocator frees the nodes wholesale, so no destructor walks the tree.
  std::unique_ptr<rapidjson::Document> document;
  const rapidjson::Value* value = nullptr;
  std::vector<std::unique_ptr<JsonValue>> children;  // elements, or member values in order
};

namespace {

std::string_view View(const rapidjson::Value& string) {
  return {string.GetString(), string.GetStringLength()};
}

/** @brief Feeds the document from the parse loop, for Document::Populate. */
template <unsigned Flags>
struct Builder {
  std::string_view text;
  std::string error;
  size_t errorOffset = 0;

  bool operator()(rapidjson::Document& document) {
    error = detail::ParseInto<Flags>(text, document, &errorOffset);
    return error.empty();
  }
};

template <unsigned Flags>
std::string Build(std::string_view text, rapidjson::Document& document, size_t& errorOffset) {
  Builder<Flags> builder{text, {}, 0};
  document.Populate(builder);
  errorOffset = builder.errorOffset;
  return std::move(builder.error);
}

}  // namespace

JsonValue::JsonValue(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

JsonValue::~JsonValue() = default;

JsonValue::Kind JsonValue::GetKind() const {
  switch (impl_->value->GetType()) {
    case rapidjson::kNullType:
      return kNull;
    case rapidjson::kFalseType:
    case rapidjson::kTrueType:
      return kBool;
    case rapidjson::kObjectType:
      return kObject;
    case rapidjson::kArrayType:
      return kArray;
    case rapidjson::kStringType:
      return kString;
    case rapidjson::kNumberType:
      return kNumber;
  }
  return kNull;
}

bool JsonValue::IsInteger() const {
  // RapidJSON keeps anything written with a fraction or exponent as a double.
  return impl_->value->IsInt64() || impl_->value->IsUint64();
}

bool JsonValue::GetBool() const {
  return impl_->value->IsBool() && impl_->value->GetBool();
}

double JsonValue::GetDouble() const {
  return impl_->value->IsNumber() ? impl_->value->GetDouble() : 0;
}

bool JsonValue::TryGetDouble(double& value) const {
  if (!impl_->value->IsNumber() || !std::isfinite(impl_->value->GetDouble())) {
    return false;
  }
  value = impl_->value->GetDouble();
  return true;
}

int64_t JsonValue::GetInt64() const {
  return impl_->value->IsInt64() ? impl_->value->GetInt64() : 0;
}

uint64_t JsonValue::GetUint64() const {
  return impl_->value->IsUint64() ? impl_->value->GetUint64() : 0;
}

std::string JsonValue::GetString() const {
  try {
    return impl_->value->IsString() ? std::string(View(*impl_->value)) : std::string();
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::string JsonValue::AsText() const {
  const rapidjson::Value& value = *impl_->value;
  try {
    if (value.IsString()) {
      return std::string(View(value));
    }
    if (value.IsUint64()) {
      return std::to_string(value.GetUint64());
    }
    if (value.IsInt64()) {
      return std::to_string(value.GetInt64());
    }
    if (value.IsNumber() && std::isfinite(value.GetDouble())) {
      // The shortest text that reads back as the same double: 8443.0 gives "8443".
      char buffer[32];
      const auto result = std::to_chars(buffer, buffer + sizeof buffer, value.GetDouble());
      return std::string(buffer, result.ptr);
    }
  } catch (const std::bad_alloc&) {
  }
  return {};
}

const JsonValue* JsonValue::FindMember(std::string_view name) const {
  const rapidjson::Value& value = *impl_->value;
  if (!value.IsObject()) {
    return nullptr;
  }
  size_t index = 0;
  for (auto it = value.MemberBegin(); it != value.MemberEnd(); ++it, ++index) {
    if (View(it->name) == name) {
      return impl_->children[index].get();
    }
  }
  return nullptr;
}

size_t JsonValue::Size() const {
  return impl_->children.size();
}

const JsonValue* JsonValue::At(size_t index) const {
  if (!impl_->value->IsArray() || index >= impl_->children.size()) {
    return nullptr;
  }
  return impl_->children[index].get();
}

const JsonValue* JsonValue::MemberAt(size_t index, std::string* name) const {
  if (!impl_->value->IsObject() || index >= impl_->children.size()) {
    return nullptr;
  }
  if (name) {
    try {
      name->assign(View(impl_->value->MemberBegin()[index].name));
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
  return impl_->children[index].get();
}

namespace {

/**
 * @brief RapidJSON's writer, except that a number beyond the double range (held as an infinity)
 * is written as null: the plain writer would stop there and leave half a text behind.
 */
class FiniteWriter : public rapidjson::Writer<rapidjson::StringBuffer> {
 public:
  using Writer::Writer;
  bool Double(double d) { return std::isfinite(d) ? Writer::Double(d) : Writer::Null(); }
};

}  // namespace

std::string JsonValue::ToString() const {
  try {
    rapidjson::StringBuffer buffer;
    FiniteWriter writer(buffer);
    impl_->value->Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
  } catch (const std::bad_alloc&) {
    return {};
  }
}

JsonParser::JsonParser(unsigned int flags) : flags_(flags) {}

std::unique_ptr<JsonValue> JsonParser::Parse(std::string_view text) {
  try {
    error_.clear();
    errorOffset_ = 0;
    auto document = std::make_unique<rapidjson::Document>();
    constexpr unsigned kComments = rapidjson::kParseCommentsFlag;
    constexpr unsigned kCommas = rapidjson::kParseTrailingCommasFlag;
    switch (flags_ & (kAllowComments | kAllowTrailingCommas)) {
      case kAllowComments:
        error_ = Build<kComments>(text, *document, errorOffset_);
        break;
      case kAllowTrailingCommas:
        error_ = Build<kCommas>(text, *document, errorOffset_);
        break;
      case kAllowComments | kAllowTrailingCommas:
        error_ = Build<kComments | kCommas>(text, *document, errorOffset_);
        break;
      default:
        error_ = Build<0>(text, *document, errorOffset_);
        break;
    }
    if (!error_.empty()) {
      return nullptr;
    }
    std::unique_ptr<JsonValue> root = JsonValue::Impl::Wrap(*document);
    root->impl_->document = std::move(document);
    return root;
  } catch (const std::bad_alloc&) {
    error_ = "Out of memory";  // fits the short-string buffer: cannot throw again
    return nullptr;
  }
}

}  // namespace hlp
