#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

/**
 * @brief JSON for the product on RapidJSON: a streaming writer, a pull reader and a DOM parser.
 *
 * Output is always compact ({"a":1,"b":[true,null]}), UTF-8, no white space.
 */
namespace hlp {

/**
 * @brief Deepest nesting of objects and arrays that the reader and the parser accept.
 *
 * The text comes from the network; a bound keeps a hostile "[[[[..." from exhausting memory
 * and keeps every later recursive walk over a parsed document shallow.
 */
inline constexpr unsigned kJsonMaxDepth = 256;

/**
 * @brief Streaming writer onto a std::ostream.
 *
 * Each call returns false (and the writer turns bad) when it would produce invalid JSON, such
 * as a value where a name is due, or when the stream fails. `ValueCheck` and `ValuePost`
 * bracket a value that the caller streams itself onto `Stream()`: ValueCheck writes the
 * separator that is due, ValuePost records that a value was written.
 *
 * Strings and names that are not valid UTF-8 (they come from the registry, the network and the
 * file system) are written with each invalid sequence replaced by U+FFFD, so the output is
 * always valid JSON. NaN and infinities have no JSON form and are written as null (as
 * JavaScript's JSON.stringify does), so one odd measurement cannot cost a whole report. Bytes go
 * straight to the stream: nothing is buffered, so the caller's own output lands where it belongs.
 * No function throws; a writer that could not be set up is simply never good.
 */
class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& out);
  ~JsonWriter();
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  bool Object();
  bool EndObject();
  bool Array();
  bool EndArray();
  bool Name(std::string_view name);

  bool String(std::string_view value);
  bool Bool(bool value);
  bool Null();
  bool Int(int32_t value);
  bool Uint(uint32_t value);
  bool Int64(int64_t value);
  bool Uint64(uint64_t value);
  bool Double(double value);

  bool ValueCheck();
  bool ValuePost();
  std::ostream& Stream();

  /** @brief False once a call failed or the stream went bad. */
  bool IsGood() const;
  /** @brief True when exactly one complete top-level value has been written and IsGood. */
  bool IsComplete() const;

 private:
  struct Impl;
  std::ostream& out_;
  std::unique_ptr<Impl> impl_;
};

/** @brief What the pull reader stands on after `Next`. */
enum class JsonToken {
  None,  // before the first Next
  StartObject,
  EndObject,
  StartArray,
  EndArray,
  Name,  // a member name; GetName gives it
  String,
  Number,
  Bool,
  Null,
  End,    // the whole text was read
  Error,  // malformed text; every later Next stays here
};

/**
 * @brief Pull reader: one token per `Next`, no tree built.
 *
 * The value getters apply to the token just read; they return false (and leave the output
 * alone) when the token is of another kind or the number does not fit. Integer getters accept
 * only numbers written without fraction or exponent; TryGetDouble refuses a number beyond the
 * double range (it would read as an infinity). Strings must be valid UTF-8 and nesting
 * deeper than kJsonMaxDepth is malformed.
 *
 * The constructor tokenises the whole text at once (the RapidJSON release we build on cannot
 * suspend its parser between tokens), so `text` need not outlive it; the tokens before a
 * syntax error are still delivered before Error. No function throws.
 */
class JsonReader {
 public:
  explicit JsonReader(std::string_view text);
  ~JsonReader();
  JsonReader(const JsonReader&) = delete;
  JsonReader& operator=(const JsonReader&) = delete;

  JsonToken Next();
  JsonToken Token() const;

  /** @brief The latest member name read (valid from its Name token on). */
  const std::string& GetName() const;

  bool TryGetInt(int32_t& value) const;
  bool TryGetInt64(int64_t& value) const;
  bool TryGetUint64(uint64_t& value) const;
  bool TryGetDouble(double& value) const;
  bool GetBool(bool& value) const;
  bool GetString(std::string& value) const;

  /**
   * @brief Skips the value that the current token begins (a whole object or array; a scalar
   * needs nothing). On a Name token the member's value is skipped. Afterwards the current token
   * is the last one of the skipped value, so `Next` reads what follows it. False when there is
   * no value here or the text turns out malformed.
   */
  bool SkipValue();

  /** @brief Parse error text and byte offset, once Next returned Error; empty before. */
  std::string ErrorText() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/**
 * @brief A node of a parsed document; valid while its root lives.
 *
 * Immutable once parsed, so several threads may read one document. No function throws: the
 * functions returning text return an empty string when memory runs out.
 */
class JsonValue {
 public:
  /** @brief Value kinds; the numbers are part of the contract (2 is an object). */
  enum Kind : int { kNull = 0, kBool = 1, kObject = 2, kArray = 3, kString = 4, kNumber = 5 };

  ~JsonValue();
  JsonValue(const JsonValue&) = delete;
  JsonValue& operator=(const JsonValue&) = delete;

  Kind GetKind() const;
  bool IsNull() const { return GetKind() == kNull; }
  bool IsBool() const { return GetKind() == kBool; }
  bool IsObject() const { return GetKind() == kObject; }
  bool IsArray() const { return GetKind() == kArray; }
  bool IsString() const { return GetKind() == kString; }
  bool IsNumber() const { return GetKind() == kNumber; }
  /** @brief A number without fraction or exponent that fits 64 bits. */
  bool IsInteger() const;

  bool GetBool() const;      // false unless a bool
  double GetDouble() const;  // 0 unless a number; beyond the double range an infinity
  /** @brief A finite number into `value`; false (value untouched) for anything else. */
  bool TryGetDouble(double& value) const;
  int64_t GetInt64() const;       // 0 unless an integer that fits
  uint64_t GetUint64() const;     // 0 unless an integer that fits
  std::string GetString() const;  // empty unless a string
  /**
   * @brief Numbers and strings as text (12, 12.5, "abc" -> abc); empty for anything else,
   * a number beyond the double range included.
   */
  std::string AsText() const;

  /** @brief Member by exact name, or null (also when this is not an object). */
  const JsonValue* FindMember(std::string_view name) const;
  /** @brief Number of array elements or object members. */
  size_t Size() const;
  /** @brief Array element `index`, or null. */
  const JsonValue* At(size_t index) const;
  /** @brief Object member `index`: its value, and its name into `name` unless that is null. */
  const JsonValue* MemberAt(size_t index, std::string* name) const;

  /** @brief The node as compact JSON text; a number beyond the double range as null. */
  std::string ToString() const;

 private:
  friend class JsonParser;
  struct Impl;
  explicit JsonValue(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/**
 * @brief DOM parser. `Parse` returns the owned root, or null for malformed text; never throws.
 *
 * Strict JSON by default: one value, valid UTF-8, no comments, nesting at most kJsonMaxDepth.
 * Empty text and anything after the value (even a NUL byte) are malformed.
 */
class JsonParser {
 public:
  /** @brief Relaxations for hand-edited files; combine with |. Other bits are ignored. */
  enum Flags : unsigned int {
    kAllowComments = 1,        // "//" and "/* */" comments
    kAllowTrailingCommas = 2,  // [1,2,] and {"a":1,}
  };

  explicit JsonParser(unsigned int flags = 0);
  std::unique_ptr<JsonValue> Parse(std::string_view text);
  /** @brief Why the last Parse returned null. */
  const std::string& ErrorText() const { return error_; }
  /** @brief Where in the text (a byte offset) the last Parse that returned null stopped. */
  size_t ErrorOffset() const { return errorOffset_; }

 private:
  unsigned int flags_;
  std::string error_;
  size_t errorOffset_ = 0;
};

}  // namespace hlp
