#include "config/KroConfiguration.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <sstream>

#include "common/SettingsText.h"
#include "core/KroStatus.h"
#include "core/RoutineTable.h"
#include "hlp/Json.h"
#include "logging_support/logging_support.h"

namespace kro {

namespace {

/**
 * @brief A JSON number as the unsigned word that the settings keep.
 *
 * Converting an out-of-range double straight to an unsigned type is undefined, yet a settings
 * file must narrow modulo 2^width (-1 gives 4294967295, 65536 in a 16-bit field gives 0). So:
 * truncate toward zero, NaN gives 0, clamp to the int64 range, then wrap to 64 bits; the caller
 * narrows further. Exact for every value within +-2^63, which holds any sensible setting.
 */
/**
 * @brief The number truncated toward zero, as the 64-bit word that the field's width then cuts,
 * or false for a number that has no such word (beyond the double range or beyond 64 bits):
 * such a member leaves its field as a member of the wrong type does.
 */
bool TruncateToWord(const hlp::JsonValue& member, uint64_t& word) {
  double value = 0;
  if (!member.TryGetDouble(value)) {
    return false;
  }
  constexpr double kTwoTo63 = 9223372036854775808.0;
  const double whole = std::trunc(value);
  if (whole < -kTwoTo63 || whole >= kTwoTo63) {
    return false;
  }
  word = static_cast<uint64_t>(static_cast<int64_t>(whole));
  return true;
}

const hlp::JsonValue* NumberMember(const hlp::JsonValue& root, std::string_view key) {
  const hlp::JsonValue* member = root.FindMember(key);
  return member != nullptr && member->IsNumber() ? member : nullptr;
}

/** @brief Why a settings text is no JSON object: where it broke, or what it is instead. */
std::string WhyNotAnObject(std::string_view text) {
  std::string why;
  const std::unique_ptr<hlp::JsonValue> root = ParseSettingsText(text, why);
  if (root != nullptr) {
    why = root->IsObject() ? "its settings could not be applied" : "it is not a JSON object";
  }
  return why;
}

}  // namespace

KroConfiguration::~KroConfiguration() {
  path_.clear();
}

long KroConfiguration::RegisterRoutines(KroAgent::RoutineTable& /*table*/) {
  return status::Ok;
}

long KroConfiguration::ToJson(std::string& /*text*/) const {
  return status::Ok;
}

long KroConfiguration::FromJson(const char* /*text*/) {
  return status::Ok;
}

long KroConfiguration::Load(const std::string& path) {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    if (path.empty()) {
      return status::NotAvailable;
    }
    // Kept before the file is tried, so a later Save without a path goes where Load looked.
    path_ = path;

    std::ifstream in(path, std::ios::binary);
    if (!in.good()) {
      return status::FileOpenFailed;
    }
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    if (size < 0) {
      return status::FileReadFailed;
    }
    std::string text(static_cast<size_t>(size), '\0');
    in.seekg(0, std::ios::beg);
    in.read(text.data(), size);
    in.close();
    const long result = FromJson(text.c_str());
    if (result == status::NotAvailable || result == status::Failure) {
      // The settings stay as they were; whoever edited the file learns where it went wrong.
      KRO_LOG_ERROR << "Settings file " << path << " ignored: " << WhyNotAnObject(text.c_str());
    }
    return result;
  } catch (...) {
    return status::Failure;
  }
}

long KroConfiguration::Save(const std::string& path) {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    if (path.empty() && path_.empty()) {
      return status::NotAvailable;
    }
    const std::string& target = path.empty() ? path_ : path;

    std::string text;
    const long result = ToJson(text);
    if (status::Failed(result)) {
      return result;
    }
    // A settings file that cannot be written is not reported: the settings in memory stand.
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    return result;
  } catch (...) {
    return status::Failure;
  }
}

long KroConfiguration::GetConfigure(const char* /*request*/, size_t /*requestLen*/,
                                    const char** response, size_t* responseLen) const {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    std::string text;
    const long result = ToJson(text);
    if (status::Failed(result)) {
      return result;
    }
    const long copied = KroAgent::HandOverAnswer(text, response, responseLen);
    return status::Failed(copied) ? copied : result;
  } catch (...) {
    return status::Failure;
  }
}

long KroConfiguration::SaveConfigure(const char* /*request*/, size_t /*requestLen*/,
                                     const char** /*response*/, size_t* /*responseLen*/) {
  std::lock_guard<std::recursive_mutex> hold(lock_);
  return status::NotAvailable;
}

std::string KroConfiguration::FilePath() const {
  try {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    return path_;
  } catch (...) {
    return {};
  }
}

std::unique_ptr<hlp::JsonValue> KroConfiguration::ParseObject(const char* text) {
  if (text == nullptr) {
    return nullptr;
  }
  std::string why;
  std::unique_ptr<hlp::JsonValue> root = ParseSettingsText(text, why);
  if (root == nullptr || !root->IsObject()) {
    return nullptr;
  }
  return root;
}

void KroConfiguration::ApplyNumber(const hlp::JsonValue& root, std::string_view key,
                                   uint32_t& field) {
  const hlp::JsonValue* member = NumberMember(root, key);
  if (uint64_t word = 0; member != nullptr && TruncateToWord(*member, word)) {
    field = static_cast<uint32_t>(word);
  }
}

void KroConfiguration::ApplyNumber(const hlp::JsonValue& root, std::string_view key,
                                   uint16_t& field) {
  const hlp::JsonValue* member = NumberMember(root, key);
  if (uint64_t word = 0; member != nullptr && TruncateToWord(*member, word)) {
    field = static_cast<uint16_t>(word);
  }
}

void KroConfiguration::ApplyLoggingLevel(const hlp::JsonValue& root, uint32_t& field) {
  constexpr uint32_t kHighestLevel = 5;  // fatal
  constexpr uint32_t kErrorLevel = 4;
  ApplyNumber(root, "LoggingLevel", field);
  if (field > kHighestLevel) {
    field = kErrorLevel;
  }
}

void KroConfiguration::ApplyFlag(const hlp::JsonValue& root, std::string_view key, bool& field) {
  const hlp::JsonValue* member = root.FindMember(key);
  if (member != nullptr && member->IsBool()) {
    field = member->GetBool();
  }
}

void KroConfiguration::WriteNumber(hlp::JsonWriter& writer, std::string_view key, uint64_t value) {
  writer.Name(key);
  writer.ValueCheck();
  writer.Stream() << value;
  writer.ValuePost();
}

long KroConfiguration::FinishJson(const hlp::JsonWriter& writer, const std::ostringstream& out,
                                  std::string& text) {
  if (!writer.IsComplete()) {
    return status::Failure;
  }
  text = out.str();
  return status::Ok;
}

}  // namespace kro
