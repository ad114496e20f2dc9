#include "dialhome/DialHomeInfo.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include "common/FilePath.h"
#include "common/WinHelper.h"
#include "core/InstallLayout.h"
#include "core/KroStatus.h"
#include "core/StringCompare.h"
#include "dialhome/AtomicFile.h"
#include "hlp/Json.h"
#include "logging_support/logging_support.h"

namespace kro {

namespace {

// Phase lengths in hours: the first phase may be skipped, the others last at least two hours,
// and none longer than thirty days.
constexpr uint32_t kMaxPhaseHours = 720;
constexpr uint32_t kMinFirstPhaseHours = 0;
constexpr uint32_t kMinPhaseHours = 2;
constexpr uint32_t kSecondsPerHour = 3600;

enum class Kind { Text, Number, YesNo };

/** @brief What an item of the line sets. */
// clang-format off
enum class Item {
  HomeName, HomePort, HomeSSL, HomeAltPort, HomeAltSSL, SystemName, AgentPort, AgentSSL,
  ProductPort, ProductSSL, StartupMode, BAPhase1, BAPhase2, BAPhase3, BAPhase4
};
// clang-format on

struct KeyRow {
  Item item;
  Kind kind;
  std::string_view key;
};

// Every item by its long key, then its short key; the first row that matches wins.
// clang-format off
constexpr std::array<KeyRow, 30> kKeyTable = {{
    {Item::HomeName, Kind::Text, "HomeName"},       {Item::HomeName, Kind::Text, "HN"},
    {Item::HomePort, Kind::Number, "HomePort"},     {Item::HomePort, Kind::Number, "HP"},
    {Item::HomeSSL, Kind::YesNo, "HomeSSL"},        {Item::HomeSSL, Kind::YesNo, "HS"},
    {Item::HomeAltPort, Kind::Number, "HomeAltPort"}, {Item::HomeAltPort, Kind::Number, "HAP"},
    {Item::HomeAltSSL, Kind::YesNo, "HomeAltSSL"},  {Item::HomeAltSSL, Kind::YesNo, "HAS"},
    {Item::SystemName, Kind::Text, "SystemName"},   {Item::SystemName, Kind::Text, "SN"},
    {Item::AgentPort, Kind::Number, "AgentPort"},   {Item::AgentPort, Kind::Number, "AP"},
    {Item::AgentSSL, Kind::YesNo, "AgentSSL"},      {Item::AgentSSL, Kind::YesNo, "AS"},
    {Item::ProductPort, Kind::Number, "ProductPort"}, {Item::ProductPort, Kind::Number, "PP"},
    {Item::ProductSSL, Kind::YesNo, "ProductSSL"},  {Item::ProductSSL, Kind::YesNo, "PS"},
    {Item::StartupMode, Kind::Text, "StartupMode"}, {Item::StartupMode, Kind::Text, "SM"},
    {Item::BAPhase1, Kind::Number, "BAPhase1"},     {Item::BAPhase1, Kind::Number, "BA1"},
    {Item::BAPhase2, Kind::Number, "BAPhase2"},     {Item::BAPhase2, Kind::Number, "BA2"},
    {Item::BAPhase3, Kind::Number, "BAPhase3"},     {Item::BAPhase3, Kind::Number, "BA3"},
    {Item::BAPhase4, Kind::Number, "BAPhase4"},     {Item::BAPhase4, Kind::Number, "BA4"},
}};
// clang-format on

// Locale-independent on purpose: the line is ASCII, whatever locale the host process set.
bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

char Upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool IsLetter(char c) {
  return Upper(c) >= 'A' && Upper(c) <= 'Z';
}

bool IsSeparator(char c) {
  return c == ':' || c == '=';
}

/** @brief The key row that starts at `pos` and is followed by ":" or "=", or null. */
const KeyRow* MatchKey(std::string_view text, size_t pos) {
  for (const KeyRow& row : kKeyTable) {
    const size_t end = pos + row.key.size();
    if (end < text.size() && IsSeparator(text[end]) &&
        EqualsIgnoringCase(text.substr(pos, row.key.size()), row.key)) {
      return &row;
    }
  }
  return nullptr;
}

/**
 * @brief The standard string-to-unsigned conversion as the Windows build performs it, with a
 * 32-bit unsigned long on every platform: an optional sign, then decimal digits up to the
 * first other character; a minus negates modulo 2^32. No digits, or a magnitude beyond 32 bits,
 * does not convert.
 */
bool ParseUnsigned(std::string_view text, uint32_t& out) {
  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  const size_t firstDigit = i;
  uint64_t magnitude = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    magnitude = magnitude * 10 + static_cast<uint64_t>(text[i] - '0');
    if (magnitude > std::numeric_limits<uint32_t>::max()) {
      return false;
    }
  }
  if (i == firstDigit) {
    return false;
  }
  const auto value = static_cast<uint32_t>(magnitude);
  out = negative ? 0u - value : value;
  return true;
}

/** @brief "Y..."/"T..." in either case; another letter is no; a number is yes when non-zero. */
bool ParseYesNo(std::string_view text, bool& out) {
  if (IsLetter(text.front())) {
    out = Upper(text.front()) == 'Y' || Upper(text.front()) == 'T';
    return true;
  }
  uint32_t number = 0;
  if (!ParseUnsigned(text, number)) {
    return false;
  }
  out = number != 0;
  return true;
}

/** @brief Stores a number item with its presence bit: ports narrow to 16 bits, no checks. */
void StoreNumber(DialHomeInfo& record, Item item, uint32_t number) {
  const auto port = static_cast<uint16_t>(number);
  switch (item) {
    case Item::HomePort:
      record.homePort = port;
      record.flags |= DialHomeInfo::kHome;
      break;
    case Item::HomeAltPort:
      record.homeAltPort = port;
      record.flags |= DialHomeInfo::kHome;
      break;
    case Item::AgentPort:
      record.agentPort = port;
      record.flags |= DialHomeInfo::kAgent;
      break;
    case Item::ProductPort:
      record.productPort = port;
      record.flags |= DialHomeInfo::kProduct;
      break;
    case Item::StartupMode:
      record.startupMode = static_cast<KroAgent::StartupMode>(number);
      record.flags |= DialHomeInfo::kStartupMode;
      break;
    case Item::BAPhase1:
    case Item::BAPhase2:
    case Item::BAPhase3:
    case Item::BAPhase4:
      record.baPhase[static_cast<int>(item) - static_cast<int>(Item::BAPhase1)] = number;
      record.flags |= DialHomeInfo::kPhases;
      break;
    default:
      break;
  }
}

void StoreFlag(DialHomeInfo& record, Item item, bool yes) {
  switch (item) {
    case Item::HomeSSL:
      record.homeSSL = yes;
      record.flags |= DialHomeInfo::kHome;
      break;
    case Item::HomeAltSSL:
      record.homeAltSSL = yes;
      record.flags |= DialHomeInfo::kHome;
      break;
    case Item::AgentSSL:
      record.agentSSL = yes;
      record.flags |= DialHomeInfo::kAgent;
      break;
    case Item::ProductSSL:
      record.productSSL = yes;
      record.flags |= DialHomeInfo::kProduct;
      break;
    default:
      break;
  }
}

void StoreName(DialHomeInfo& record, Item item, std::string_view name) {
  if (item == Item::HomeName) {
    record.homeName = name;
    record.flags |= DialHomeInfo::kHomeName;
  } else if (item == Item::SystemName) {
    record.systemName = name;
    record.flags |= DialHomeInfo::kSystemName;
  }
}

bool IsPhase(Item item) {
  return item >= Item::BAPhase1 && item <= Item::BAPhase4;
}

/** @brief Applies one non-empty value of the line; false when a number does not convert. */
bool ApplyLineItem(DialHomeInfo& record, const KeyRow& row, std::string_view value) {
  if (row.kind == Kind::YesNo) {
    bool yes = false;
    if (!ParseYesNo(value, yes)) {
      return false;
    }
    StoreFlag(record, row.item, yes);
  } else if (row.kind == Kind::Number) {
    uint32_t number = 0;
    if (!ParseUnsigned(value, number)) {
      return false;
    }
    const uint32_t minimum = row.item == Item::BAPhase1 ? kMinFirstPhaseHours : kMinPhaseHours;
    if (IsPhase(row.item) && (number < minimum || number > kMaxPhaseHours)) {
      return true;  // out of range: ignored, and the phases keep their presence bit
    }
    StoreNumber(record, row.item, number);
  } else if (row.item == Item::StartupMode) {
    // Only the first letter counts, so "pause" and "Paused" read alike.
    switch (Upper(value.front())) {
      case 'N':
        StoreNumber(record, row.item, KroAgent::Normal);
        break;
      case 'P':
        StoreNumber(record, row.item, KroAgent::Paused);
        break;
      case 'A':
        StoreNumber(record, row.item, KroAgent::Active);
        break;
      default:
        break;
    }
  } else {
    StoreName(record, row.item, value);
  }
  return true;
}

/** @brief The row whose long key is exactly `name` (rows alternate long and short keys). */
const KeyRow* FindLongKey(std::string_view name) {
  for (size_t i = 0; i < kKeyTable.size(); i += 2) {
    if (kKeyTable[i].key == name) {
      return &kKeyTable[i];
    }
  }
  return nullptr;
}

/** @brief Reads the value after a known member name into the record, or says why not. */
long ApplyJsonMember(DialHomeInfo& record, const KeyRow& row, hlp::JsonReader& reader) {
  reader.Next();
  if (row.kind == Kind::YesNo) {
    bool yes = false;
    if (!reader.GetBool(yes)) {
      return status::Failure;
    }
    StoreFlag(record, row.item, yes);
  } else if (row.kind == Kind::Number || row.item == Item::StartupMode) {
    int32_t number = 0;
    if (!reader.TryGetInt(number)) {
      return status::Failure;
    }
    // Taken as they come: no phase ranges, the mode's number unchecked.
    StoreNumber(record, row.item, static_cast<uint32_t>(number));
  } else {
    std::string name;
    if (!reader.GetString(name)) {
      return status::Failure;
    }
    if (!IsSettingsLineText(name)) {
      // Written as it is, it would come back as other items: another home, another port.
      KRO_LOG_ERROR << "Settings refused: " << row.key
                    << " is empty or holds a character DialHomeInfo.txt cannot keep";
      return status::NotAvailable;
    }
    StoreName(record, row.item, name);
  }
  return status::Ok;
}

/** @brief The file's first line, without its line end (LF or CR LF). */
long ReadFirstLine(std::string& line) {
  std::wstring path;
  const long result = GetDialHomeInfoPath(path);
  if (status::Failed(result)) {
    return result;
  }
  std::ifstream in(ToFilePath(path), std::ios::binary);
  if (!in.is_open()) {
    return status::FileOpenFailed;
  }
  if (!std::getline(in, line)) {
    return status::FileReadFailed;
  }
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return status::Ok;
}

const char* StartupModeText(KroAgent::StartupMode mode) {
  switch (mode) {
    case KroAgent::Normal:
      return "Normal";
    case KroAgent::Paused:
      return "Paused";
    default:
      // A merged JSON number outside the three modes: the product starts active for it.
      return "Active";
  }
}

/**
 * @brief Hands every present item to `sink`, in the file's order: HomeName always, then each
 * group whose presence bit is set. The text line and the JSON object share this order.
 */
template <typename Sink>
void ForEachPresentItem(const DialHomeInfo& record, Sink& sink) {
  sink.Text("HomeName", record.homeName);
  if ((record.flags & DialHomeInfo::kHome) != 0) {
    sink.Number("HomePort", record.homePort);
    sink.Flag("HomeSSL", record.homeSSL);
    sink.Number("HomeAltPort", record.homeAltPort);
    sink.Flag("HomeAltSSL", record.homeAltSSL);
  }
  if ((record.flags & DialHomeInfo::kSystemName) != 0) {
    sink.Text("SystemName", record.systemName);
  }
  if ((record.flags & DialHomeInfo::kAgent) != 0) {
    sink.Number("AgentPort", record.agentPort);
    sink.Flag("AgentSSL", record.agentSSL);
  }
  if ((record.flags & DialHomeInfo::kProduct) != 0) {
    sink.Number("ProductPort", record.productPort);
    sink.Flag("ProductSSL", record.productSSL);
  }
  if ((record.flags & DialHomeInfo::kStartupMode) != 0) {
    sink.Mode("StartupMode", record.startupMode);
  }
  if ((record.flags & DialHomeInfo::kPhases) != 0) {
    constexpr std::string_view kPhaseKeys[4] = {"BAPhase1", "BAPhase2", "BAPhase3", "BAPhase4"};
    for (int i = 0; i < 4; ++i) {
      sink.Number(kPhaseKeys[i], record.baPhase[i]);
    }
  }
}

/** @brief The file's line: "Key:value" items joined by ",", flags as "Y"/"N". */
struct LineSink {
  std::string line;

  void Item(std::string_view key, std::string_view value) {
    if (!line.empty()) {
      line += ',';
    }
    line.append(key).append(":").append(value);
  }
  void Text(std::string_view key, const std::string& value) { Item(key, value); }
  void Number(std::string_view key, uint32_t value) { Item(key, std::to_string(value)); }
  void Flag(std::string_view key, bool value) { Item(key, value ? "Y" : "N"); }
  void Mode(std::string_view key, KroAgent::StartupMode mode) { Item(key, StartupModeText(mode)); }
};

/** @brief The JSON members: names as strings, flags as booleans, the mode as its number. */
struct JsonSink {
  hlp::JsonWriter& writer;

  void Text(std::string_view key, const std::string& value) {
    writer.Name(key);
    writer.String(value);
  }
  void Number(std::string_view key, uint32_t value) {
    writer.Name(key);
    writer.Uint(value);
  }
  void Flag(std::string_view key, bool value) {
    writer.Name(key);
    writer.Bool(value);
  }
  void Mode(std::string_view key, KroAgent::StartupMode mode) {
    writer.Name(key);
    writer.Int(mode);
  }
};

/**
 * @brief A string of decimal digits and nothing else, as a number of seconds that fits 32 bits.
 */
bool ParseSeconds(const hlp::JsonValue* value, uint32_t& seconds) {
  if (value == nullptr || !value->IsString()) {
    return false;
  }
  const std::string text = value->GetString();
  if (text.empty()) {
    return false;
  }
  uint64_t total = 0;
  for (char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    total = total * 10 + static_cast<uint64_t>(c - '0');
    if (total > std::numeric_limits<uint32_t>::max()) {
      return false;
    }
  }
  seconds = static_cast<uint32_t>(total);
  return true;
}

}  // namespace

long GetDialHomeInfoPath(std::wstring& path) {
  try {
    std::wstring folder;
    ReadRegistryString(folder, kSetupKey, kInstallDirValue);
    if (folder.empty()) {
      // The plain read stays silent; ask again for the reason, to pass it on.
      RegType type = RegType::None;
      std::vector<uint8_t> data;
      const long result = RegistryQueryValue(kSetupKey, kInstallDirValue, type, data);
      return status::Failed(result) ? result : status::RegistryValueMissing;
    }
    const wchar_t last = folder.back();
    if (last != L'\\' && last != L'/' && last != L':') {
      folder += kPathSeparator;
    }
    // The second separator doubles the first; the file system accepts it and it stays so.
    path = folder + kPathSeparator + kDialHomeFile;
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

long ReadDialHomeInfo(DialHomeInfo& record) {
  try {
    std::string line;
    const long result = ReadFirstLine(line);
    if (status::Failed(result)) {
      return result;
    }
    return ParseDialHomeInfoLine(record, line);
  } catch (...) {
    return status::Failure;
  }
}

long ParseDialHomeInfoLine(DialHomeInfo& record, const std::string& line) {
  try {
    if (line.empty()) {
      return status::NotAvailable;
    }
    std::string text;
    text.reserve(line.size());
    for (char c : line) {
      if (!IsSpace(c)) {
        text += c;
      }
    }
    if (text.empty()) {
      return status::NotAvailable;
    }

    const std::string_view view(text);
    size_t pos = 0;
    while (pos < view.size()) {
      const KeyRow* row = MatchKey(view, pos);
      const size_t valueStart = row != nullptr ? pos + row->key.size() + 1 : pos;
      const size_t comma = view.find(',', valueStart);
      if (row == nullptr && comma == std::string_view::npos) {
        break;  // an unknown last item ends the line
      }
      pos = comma == std::string_view::npos ? view.size() : comma + 1;
      if (row == nullptr) {
        continue;
      }
      const std::string_view value =
          view.substr(valueStart, comma == std::string_view::npos ? std::string_view::npos
                                                                  : comma - valueStart);
      if (!value.empty() && !ApplyLineItem(record, *row, value)) {
        return status::MalformedData;
      }
    }
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

bool IsSettingsLineText(std::string_view text) {
  if (text.empty()) {
    return false;
  }
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= ' ' || byte == 0x7F || c == ',' || IsSeparator(c)) {
      return false;
    }
  }
  for (size_t i = 0; i < kKeyTable.size(); i += 2) {
    if (text.find(kKeyTable[i].key) != std::string_view::npos) {
      return false;
    }
  }
  return true;
}

long FormatDialHomeInfo(const DialHomeInfo& record, std::string& text) {
  try {
    if ((record.flags & DialHomeInfo::kHomeName) == 0 || !IsSettingsLineText(record.homeName) ||
        ((record.flags & DialHomeInfo::kSystemName) != 0 &&
         !IsSettingsLineText(record.systemName))) {
      return status::NotAvailable;
    }
    LineSink sink;
    ForEachPresentItem(record, sink);
    text = std::move(sink.line);
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

long WriteDialHomeInfoFile(const std::wstring& path, const DialHomeInfo& record) {
  try {
    std::string line;
    const long result = FormatDialHomeInfo(record, line);
    if (status::Failed(result)) {
      return result;
    }
    // A bare line feed: the reader takes the line up to it and drops a carriage return before
    // it, so files from Windows tools read alike.
    return WriteFileAtomically(ToFilePath(path), line + "\n");
  } catch (...) {
    return status::Failure;
  }
}

long SaveDialHomeInfo(const DialHomeInfo& record) {
  try {
    if ((record.flags & DialHomeInfo::kHomeName) == 0) {
      return status::NotAvailable;
    }
    std::wstring path;
    const long result = GetDialHomeInfoPath(path);
    if (status::Failed(result)) {
      return result;
    }
    return WriteDialHomeInfoFile(path, record);
  } catch (...) {
    return status::Failure;
  }
}

long GetDialHomeInfoValue(const std::string& key, std::string& value) {
  try {
    std::string line;
    const long result = ReadFirstLine(line);
    if (status::Failed(result)) {
      return result;
    }
    if (line.empty()) {
      return status::NotAvailable;
    }
    if (line.size() < key.size() + 2) {
      return status::NotFound;
    }
    const size_t at = line.find(key);
    if (at == std::string::npos) {
      return status::NotFound;
    }
    const size_t separator = at + key.size();
    if (separator >= line.size() || !IsSeparator(line[separator])) {
      return status::NotAvailable;
    }
    const size_t start = separator + 1;
    const size_t comma = line.find(',', start);
    std::string found =
        line.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    if (found.empty()) {
      return status::NotAvailable;
    }
    value = std::move(found);
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

long ParseDialHomeInfoJson(DialHomeInfo& record, const char* json) {
  try {
    if (json == nullptr) {
      return status::NotAvailable;
    }
    hlp::JsonReader reader(json);
    if (reader.Next() != hlp::JsonToken::StartObject) {
      return status::Failure;
    }
    for (;;) {
      const hlp::JsonToken token = reader.Next();
      if (token == hlp::JsonToken::EndObject) {
        return status::Ok;
      }
      if (token != hlp::JsonToken::Name) {
        return status::Failure;  // malformed text
      }
      const KeyRow* row = FindLongKey(reader.GetName());
      if (row == nullptr) {
        if (!reader.SkipValue()) {
          return status::Failure;
        }
      } else if (const long st = ApplyJsonMember(record, *row, reader); st != status::Ok) {
        return st;
      }
    }
  } catch (...) {
    return status::Failure;
  }
}

long DialHomeInfoToJson(const DialHomeInfo& record, hlp::JsonWriter& writer) {
  try {
    if ((record.flags & DialHomeInfo::kHomeName) == 0) {
      return status::NotAvailable;
    }
    if (!writer.IsGood()) {
      return status::Failure;
    }
    writer.Object();
    JsonSink sink{writer};
    ForEachPresentItem(record, sink);
    writer.EndObject();
    return writer.IsGood() ? status::Ok : status::Failure;
  } catch (...) {
    return status::Failure;
  }
}

long ParseStartupSettings(DialHomeInfo& record, const char* json) {
  try {
    if (json == nullptr) {
      return status::NotAvailable;
    }
    hlp::JsonParser parser(0);
    const std::unique_ptr<hlp::JsonValue> root = parser.Parse(json);
    if (root == nullptr || !root->IsObject()) {
      return status::NotAvailable;
    }

    const hlp::JsonValue* start = root->FindMember("startArbalo");
    if (start != nullptr && !start->IsNull()) {
      double value = 0;
      if (!start->TryGetDouble(value)) {
        return status::NotAvailable;  // not a number, or one beyond the double range
      }
      record.startupMode = value == 1   ? KroAgent::Normal
                           : value == 0 ? KroAgent::Paused
                                        : KroAgent::Active;
      record.flags |= DialHomeInfo::kStartupMode;
    }

    const hlp::JsonValue* durations = root->FindMember("BAPhaseDuration");
    if (durations == nullptr || durations->IsNull()) {
      return status::Ok;
    }
    if (!durations->IsObject()) {
      return status::NotAvailable;
    }
    // Indexed by BAPhaseType.
    constexpr std::string_view kPhaseNames[4] = {"PreBAPhase", "AnalysisPhase", "OptimizePhase",
                                                 "PostAnalysisPhase"};
    uint32_t hours[4] = {};
    bool anyHours = false;
    for (int i = 0; i < 4; ++i) {
      uint32_t seconds = 0;
      if (!ParseSeconds(durations->FindMember(kPhaseNames[i]), seconds)) {
        return status::NotAvailable;
      }
      hours[i] = seconds / kSecondsPerHour;
      anyHours = anyHours || hours[i] != 0;
    }
    if (anyHours) {
      for (int i = 0; i < 4; ++i) {
        record.baPhase[i] = hours[i];
      }
      record.flags |= DialHomeInfo::kPhases;
    } else {
      // No phase to run: the product starts active at once and the old lengths stay.
      record.startupMode = KroAgent::Active;
      record.flags |= DialHomeInfo::kStartupMode;
    }
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

}  // namespace kro
