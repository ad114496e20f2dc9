#include "hlp/Json.h"

#include <cmath>
#include <limits>
#include <new>
#include <ostream>

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/writer.h>

namespace hlp {
namespace {

/**
 * @brief Length of the well-formed UTF-8 sequence that starts `s`, or 0 when it is ill-formed;
 * then `bad` receives the length of its maximal subpart.
 *
 * Replacing each maximal subpart by one U+FFFD (as Unicode recommends) means a stray byte never
 * swallows the valid characters after it.
 */
size_t Utf8Sequence(std::string_view s, size_t& bad) {
  const auto byte = [&s](size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  size_t length = 0;
  // The second byte's range also excludes overlong forms, surrogates and code points beyond
  // U+10FFFF.
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : 0x80;
    high = lead == 0xED ? 0x9F : 0xBF;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  } else {
    bad = 1;
    return 0;
  }
  for (size_t i = 1; i < length; ++i) {
    if (i >= s.size() || byte(i) < low || byte(i) > high) {
      bad = i;
      return 0;
    }
    low = 0x80;
    high = 0xBF;
  }
  return length;
}

/** @brief `text` itself when it is valid UTF-8, else a repaired copy kept in `repaired`. */
std::string_view ValidUtf8(std::string_view text, std::string& repaired) {
  size_t pos = 0;
  size_t bad = 0;
  while (pos < text.size()) {
    const size_t n = Utf8Sequence(text.substr(pos), bad);
    if (n == 0) {
      break;
    }
    pos += n;
  }
  if (pos == text.size()) {
    return text;
  }
  repaired.assign(text.substr(0, pos));
  while (pos < text.size()) {
    const size_t n = Utf8Sequence(text.substr(pos), bad);
    if (n != 0) {
      repaired.append(text.substr(pos, n));
      pos += n;
    } else {
      repaired.append("\xEF\xBF\xBD");
      pos += bad;
    }
  }
  return repaired;
}

/**
 * @brief RapidJSON's writer, opened up so that misuse is refused before it reaches the
 * writer's assertions and so that a caller may stream a value of its own.
 */
class StreamWriter : public rapidjson::Writer<rapidjson::OStreamWrapper> {
 public:
  explicit StreamWriter(rapidjson::OStreamWrapper& stream) : Writer(stream) {}

  bool NameDue() const {
    return !level_stack_.Empty() && !Top().inArray && Top().valueCount % 2 == 0;
  }
  bool ValueDue() const {
    if (level_stack_.Empty()) {
      return !hasRoot_;
    }
    return Top().inArray || Top().valueCount % 2 == 1;
  }
  bool InArray() const { return !level_stack_.Empty() && Top().inArray; }

  /** @brief Writes the separator due before a value and counts the value. */
  void OpenRawValue() { Prefix(rapidjson::kNumberType); }
  void CloseRawValue() { EndValue(true); }

  bool Text(std::string_view text) {
    std::string repaired;
    const std::string_view valid = ValidUtf8(text, repaired);
    if (valid.size() > std::numeric_limits<rapidjson::SizeType>::max()) {
      return false;
    }
    return String(valid.empty() ? "" : valid.data(),
                  static_cast<rapidjson::SizeType>(valid.size()));
  }

 private:
  const Level& Top() const { return *level_stack_.template Top<Level>(); }
};

}  // namespace

struct JsonWriter::Impl {
  explicit Impl(std::ostream& out) : stream(out), writer(stream) {}

  /** @brief Runs `op` when `allowed`; any refusal, failure or exception turns the writer bad. */
  template <typename Op>
  bool Run(std::ostream& out, bool allowed, Op op) {
    if (failed || rawOpen || !allowed || out.fail()) {
      failed = true;
      return false;
    }
    try {
      failed = !op(writer);
    } catch (...) {
      // An ostream with exceptions() enabled, or memory running out.
      failed = true;
    }
    if (out.fail()) {
      failed = true;
    }
    return !failed;
  }

  rapidjson::OStreamWrapper stream;
  StreamWriter writer;
  bool failed = false;
  bool rawOpen = false;  // between ValueCheck and ValuePost
};

JsonWriter::JsonWriter(std::ostream& out)
    : out_(out), impl_([&out]() -> std::unique_ptr<Impl> {
        try {
          return std::make_unique<Impl>(out);
        } catch (const std::bad_alloc&) {
          return nullptr;  // never good, but no exception out of a constructor
        }
      }()) {}

JsonWriter::~JsonWriter() = default;

bool JsonWriter::Object() {
  return impl_ && impl_->Run(out_, impl_->writer.ValueDue(),
                             [](StreamWriter& w) { return w.StartObject(); });
}

bool JsonWriter::EndObject() {
  return impl_ &&
         impl_->Run(out_, impl_->writer.NameDue(), [](StreamWriter& w) { return w.EndObject(); });
}

bool JsonWriter::Array() {
  return impl_ &&
         impl_->Run(out_, impl_->writer.ValueDue(), [](StreamWriter& w) { return w.StartArray(); });
}

bool JsonWriter::EndArray() {
  return impl_ &&
         impl_->Run(out_, impl_->writer.InArray(), [](StreamWriter& w) { return w.EndArray(); });
}

bool JsonWriter::Name(std::string_view name) {
  return impl_ && impl_->Run(out_, impl_->writer.NameDue(),
                             [name](StreamWriter& w) { return w.Text(name); });
}

bool JsonWriter::String(std::string_view value) {
  return impl_ && impl_->Run(out_, impl_->writer.ValueDue(),
                             [value](StreamWriter& w) { return w.Text(value); });
}

bool JsonWriter::Bool(bool value) {
  return impl_ && impl_->Run(out_, impl_->writer.ValueDue(),
                             [value](StreamWriter& w) { return w.Bool(value); });
}

bool JsonWriter::Null() {
  return impl_ &&
         impl_->Run(out_, impl_->writer.ValueDue(), [](StreamWriter& w) { return w.Null(); });
}

bool JsonWriter::Int(int32_t value) {
  return impl_ && impl_->Run(out_, impl_->writer.ValueDue(),
                             [value](StreamWriter& w) { return w.Int(value); });
}

bool JsonWriter::Uint(uint32_t value) {
  return impl_ && impl_->Run(out_, impl_->writer.ValueDue(),
                             [value](StreamWriter& w) { return w.Uint(value); });
}

bool JsonWriter::Int64(int64_t value) {
  return impl_ && impl_->Run(out_, impl_->writer.ValueDue(),
                             [value](StreamWriter& w) { return w.Int64(value); });
}

bool JsonWriter::Uint64(uint64_t value) {
  return impl_ && impl_->Run(out_, impl_->writer.ValueDue(),
                             [value](StreamWriter& w) { return w.Uint64(value); });
}

bool JsonWriter::Double(double value) {
  return impl_ && impl_->Run(out_, impl_->writer.ValueDue(), [value](StreamWriter& w) {
    return std::isfinite(value) ? w.Double(value) : w.Null();
  });
}

bool JsonWriter::ValueCheck() {
  if (!impl_) {
    return false;
  }
  const bool ok = impl_->Run(out_, impl_->writer.ValueDue(), [](StreamWriter& w) {
    w.OpenRawValue();
    return true;
  });
  impl_->rawOpen = ok;
  return ok;
}

bool JsonWriter::ValuePost() {
  if (!impl_) {
    return false;
  }
  const bool open = impl_->rawOpen;
  impl_->rawOpen = false;
  return impl_->Run(out_, open, [](StreamWriter& w) {
    w.CloseRawValue();
    return true;
  });
}

std::ostream& JsonWriter::Stream() {
  return out_;
}

bool JsonWriter::IsGood() const {
  return impl_ && !impl_->failed && !out_.fail();
}

bool JsonWriter::IsComplete() const {
  return IsGood() && !impl_->rawOpen && impl_->writer.IsComplete();
}

}  // namespace hlp
