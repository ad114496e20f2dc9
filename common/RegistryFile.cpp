#include "common/RegistryFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cwctype>
#include <mutex>
#include <optional>
#include <system_error>

#include "core/KroStatus.h"
#include "core/StringCompare.h"

namespace kro {

namespace {

constexpr std::string_view kHeader = "Windows Registry Editor Version 5.00";
constexpr std::string_view kRoot = "HKEY_LOCAL_MACHINE\\";
constexpr const char* kDefaultLocation = "/etc/kroagent/registry.reg";

// Processes meet at the flock; the threads of this one queue here first, so the lock file is
// opened by one writer at a time.
std::mutex& WriterMutex() {
  static std::mutex lock;
  return lock;
}

// Windows compares key and value names without regard to case.
bool SameName(const std::wstring& a, const std::wstring& b) {
  if (a.size() != b.size()) {
    return false;
  }
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i] &&
        std::towupper(static_cast<wint_t>(a[i])) != std::towupper(static_cast<wint_t>(b[i]))) {
      return false;
    }
  }
  return true;
}

bool IsSurrogate(uint32_t unit) {
  return unit >= 0xD800 && unit <= 0xDFFF;
}

std::string ToUtf8(const std::wstring& text) {
  std::string out;
  if (!text.empty()) {
    WideToUtf8(text, out);
  }
  return out;
}

std::wstring FromUtf8(std::string_view text) {
  std::wstring out;
  Utf8ToWide(text.data(), text.size(), out);
  return out;
}

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) {
    return {};
  }
  const size_t last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

std::optional<uint32_t> ParseHexNumber(std::string_view text, size_t maxDigits) {
  if (text.empty() || text.size() > maxDigits) {
    return std::nullopt;
  }
  uint32_t value = 0;
  for (char c : text) {
    const int digit = HexDigit(c);
    if (digit < 0) {
      return std::nullopt;
    }
    value = value * 16 + static_cast<uint32_t>(digit);
  }
  return value;
}

// A quoted name or string at the start of `text`: `"..."` with \\ and \" escapes. Consumes the
// quotes from `text`.
std::optional<std::string> TakeQuoted(std::string_view& text) {
  if (text.empty() || text.front() != '"') {
    return std::nullopt;
  }
  std::string out;
  for (size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      out += text[++i];
    } else if (text[i] == '"') {
      text.remove_prefix(i + 1);
      return out;
    } else {
      out += text[i];
    }
  }
  return std::nullopt;
}

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '\\' || c == '"') {
      out += '\\';
    }
    out += c;
  }
  out += '"';
  return out;
}

std::optional<std::vector<uint8_t>> ParseHexBytes(std::string_view text) {
  std::vector<uint8_t> bytes;
  text = Trim(text);
  while (!text.empty()) {
    const size_t comma = text.find(',');
    const std::string_view token = Trim(text.substr(0, comma));
    const auto byte = ParseHexNumber(token, 2);
    if (!byte) {
      return std::nullopt;
    }
    bytes.push_back(static_cast<uint8_t>(*byte));
    if (comma == std::string_view::npos) {
      break;
    }
    text.remove_prefix(comma + 1);
    text = Trim(text);
  }
  return bytes;
}

// The text a REG_SZ value shows as `"Name"="text"`, or nothing when only hex(1): keeps its
// bytes: no terminator, an embedded zero, a lone surrogate or a line break.
std::optional<std::wstring> PrintableText(const std::vector<uint8_t>& data) {
  if (data.size() < 2 || data.size() % 2 != 0 || data[data.size() - 1] != 0 ||
      data[data.size() - 2] != 0) {
    return std::nullopt;
  }
  const std::wstring text = RegistryFile::DecodeText(data);
  if (RegistryFile::EncodeText(text) != data) {
    return std::nullopt;
  }
  for (wchar_t c : text) {
    if (c == L'\r' || c == L'\n' || IsSurrogate(static_cast<uint32_t>(c))) {
      return std::nullopt;
    }
  }
  return text;
}

std::string FormatValue(const RegistryValue& value) {
  std::string line = value.name.empty() ? "@" : Quote(ToUtf8(value.name));
  line += '=';
  if (value.type == RegType::Sz) {
    if (const auto text = PrintableText(value.data)) {
      return line + Quote(ToUtf8(*text));
    }
  }
  char hex[16];
  if (value.type == RegType::Dword && value.data.size() == 4) {
    const uint32_t number = value.data[0] | (value.data[1] << 8) | (value.data[2] << 16) |
                            (static_cast<uint32_t>(value.data[3]) << 24);
    std::snprintf(hex, sizeof(hex), "dword:%08x", number);
    return line + hex;
  }
  if (value.type == RegType::Binary) {
    line += "hex:";
  } else {
    std::snprintf(hex, sizeof(hex), "hex(%x):", static_cast<unsigned>(value.type));
    line += hex;
  }
  for (size_t i = 0; i < value.data.size(); ++i) {
    std::snprintf(hex, sizeof(hex), i == 0 ? "%02x" : ",%02x", value.data[i]);
    line += hex;
  }
  return line;
}

// One `name=data` line (continuations already joined); nothing for a line it cannot read.
std::optional<RegistryValue> ParseValue(std::string_view line) {
  RegistryValue value;
  if (!line.empty() && line.front() == '@') {
    line.remove_prefix(1);
  } else {
    const auto name = TakeQuoted(line);
    if (!name || name->empty()) {
      return std::nullopt;
    }
    value.name = FromUtf8(*name);
  }
  line = Trim(line);
  if (line.empty() || line.front() != '=') {
    return std::nullopt;
  }
  line = Trim(line.substr(1));

  if (!line.empty() && line.front() == '"') {
    const auto text = TakeQuoted(line);
    if (!text || !Trim(line).empty()) {
      return std::nullopt;
    }
    value.type = RegType::Sz;
    value.data = RegistryFile::EncodeText(FromUtf8(*text));
    return value;
  }
  if (StartsWithIgnoringCase(line, "dword:")) {
    const auto number = ParseHexNumber(line.substr(6), 8);
    if (!number) {
      return std::nullopt;
    }
    value.type = RegType::Dword;
    value.data = {static_cast<uint8_t>(*number), static_cast<uint8_t>(*number >> 8),
                  static_cast<uint8_t>(*number >> 16), static_cast<uint8_t>(*number >> 24)};
    return value;
  }
  if (StartsWithIgnoringCase(line, "hex:")) {
    value.type = RegType::Binary;
    line.remove_prefix(4);
  } else if (StartsWithIgnoringCase(line, "hex(")) {
    const size_t close = line.find("):");
    const auto type = close == std::string_view::npos
                          ? std::nullopt
                          : ParseHexNumber(line.substr(4, close - 4), 8);
    if (!type) {
      return std::nullopt;
    }
    value.type = static_cast<RegType>(*type);
    line.remove_prefix(close + 2);
  } else {
    return std::nullopt;
  }
  auto bytes = ParseHexBytes(line);
  if (!bytes) {
    return std::nullopt;
  }
  value.data = std::move(*bytes);
  return value;
}

bool ReadAll(const std::filesystem::path& file, std::string& text, bool& missing) {
  missing = false;
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    missing = errno == ENOENT;
    return false;
  }
  text.clear();
  char chunk[8192];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      ::close(fd);
      return false;
    }
    if (n == 0) {
      break;
    }
    text.append(chunk, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// Writes beside the original and renames over it: readers see the old file or the new one,
// never a part of either.
bool ReplaceFile(const std::filesystem::path& file, const std::string& text) {
  static std::atomic<unsigned> counter{0};
  const std::filesystem::path temp =
      file.string() + ".tmp." + std::to_string(::getpid()) + "." + std::to_string(counter++);
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    return false;
  }
  const bool written = WriteAll(fd, text) && ::fsync(fd) == 0;
  const bool closed = ::close(fd) == 0;
  if (!written || !closed || ::rename(temp.c_str(), file.c_str()) != 0) {
    ::unlink(temp.c_str());
    return false;
  }
  // The rename itself must reach the disk too, or a crash could bring back the old file.
  const std::filesystem::path folder = file.has_parent_path() ? file.parent_path() : ".";
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

class FileLock {
 public:
  explicit FileLock(const std::filesystem::path& file)
      : fd_(::open((file.string() + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (fd_ >= 0) {
      int rc;
      do {
        rc = ::flock(fd_, LOCK_EX);
      } while (rc != 0 && errno == EINTR);
      locked_ = rc == 0;
    }
  }
  ~FileLock() {
    if (fd_ >= 0) {
      ::close(fd_);  // releases the lock
    }
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  bool Locked() const { return locked_; }

 private:
  int fd_;
  bool locked_ = false;
};

}  // namespace

const RegistryValue* RegistryKey::Find(const std::wstring& valueName) const {
  for (const RegistryValue& value : values) {
    if (SameName(value.name, valueName)) {
      return &value;
    }
  }
  return nullptr;
}

void RegistryKey::Set(const std::wstring& valueName, RegType type, std::vector<uint8_t> data) {
  for (RegistryValue& value : values) {
    if (SameName(value.name, valueName)) {
      value.type = type;
      value.data = std::move(data);
      return;
    }
  }
  values.push_back(RegistryValue{valueName, type, std::move(data)});
}

std::filesystem::path RegistryFile::Location() {
  const char* file = std::getenv("KRO_REGISTRY_FILE");
  return file != nullptr && *file != '\0' ? file : kDefaultLocation;
}

RegistryFile RegistryFile::Parse(std::string_view text) {
  RegistryFile registry;
  if (text.substr(0, 3) == "\xEF\xBB\xBF") {
    text.remove_prefix(3);
  }
  constexpr size_t kNoSection = static_cast<size_t>(-1);
  size_t current = kNoSection;  // index of the section the value lines belong to

  const auto nextLine = [&text]() {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return Trim(line);
  };

  while (!text.empty()) {
    std::string_view line = nextLine();
    if (line.empty() || line.front() == ';') {
      continue;
    }
    if (line.front() == '[') {
      current = kNoSection;
      if (line.back() == ']') {
        const std::string_view path = line.substr(1, line.size() - 2);
        // Other hives, deletions ("[-...]") and the bare root hold nothing we keep.
        if (path.size() > kRoot.size() && StartsWithIgnoringCase(path, kRoot)) {
          const RegistryKey& key = registry.CreateKey(FromUtf8(path.substr(kRoot.size())));
          current = static_cast<size_t>(&key - registry.keys_.data());
        }
      }
      continue;
    }
    std::string joined;
    std::string_view logical = line;
    // Long hex data wraps with a trailing backslash; strings never end in one.
    if (logical.back() == '\\' && logical.find("=hex") != std::string_view::npos) {
      joined = logical;
      while (!joined.empty() && joined.back() == '\\' && !text.empty()) {
        joined.pop_back();
        joined += nextLine();
      }
      logical = joined;
    }
    if (current == kNoSection) {
      continue;
    }
    if (auto value = ParseValue(logical)) {
      registry.keys_[current].Set(value->name, value->type, std::move(value->data));
    }
  }
  return registry;
}

RegistryFile RegistryFile::Load(const std::filesystem::path& file) {
  std::string text;
  bool missing = false;
  if (!ReadAll(file, text, missing)) {
    return {};
  }
  return Parse(text);
}

long RegistryFile::Update(const std::filesystem::path& file,
                          const std::function<long(RegistryFile&)>& change) {
  std::lock_guard<std::mutex> guard(WriterMutex());
  std::error_code ec;
  if (file.has_parent_path()) {
    std::filesystem::create_directories(file.parent_path(), ec);
    if (ec) {
      return status::RegistryWriteFailed;
    }
  }
  FileLock lock(file);
  if (!lock.Locked()) {
    return status::RegistryWriteFailed;
  }
  std::string text;
  bool missing = false;
  // A file that exists but cannot be read must not be replaced by an almost empty one.
  if (!ReadAll(file, text, missing) && !missing) {
    return status::RegistryWriteFailed;
  }
  RegistryFile registry = Parse(text);
  const long result = change(registry);
  if (result != status::Ok) {
    return result;
  }
  return ReplaceFile(file, registry.Serialize()) ? status::Ok : status::RegistryWriteFailed;
}

std::string RegistryFile::Serialize() const {
  std::string text(kHeader);
  text += '\n';
  for (const RegistryKey& key : keys_) {
    text += "\n[";
    text += kRoot;
    text += ToUtf8(key.name);
    text += "]\n";
    for (const RegistryValue& value : key.values) {
      text += FormatValue(value);
      text += '\n';
    }
  }
  return text;
}

bool RegistryFile::KeyExists(const std::wstring& key) const {
  for (const RegistryKey& candidate : keys_) {
    if (candidate.name.size() >= key.size() &&
        SameName(candidate.name.substr(0, key.size()), key) &&
        (candidate.name.size() == key.size() || candidate.name[key.size()] == L'\\')) {
      return true;
    }
  }
  return false;
}

const RegistryKey* RegistryFile::FindKey(const std::wstring& key) const {
  for (const RegistryKey& candidate : keys_) {
    if (SameName(candidate.name, key)) {
      return &candidate;
    }
  }
  return nullptr;
}

RegistryKey& RegistryFile::CreateKey(const std::wstring& key) {
  for (RegistryKey& candidate : keys_) {
    if (SameName(candidate.name, key)) {
      return candidate;
    }
  }
  keys_.push_back(RegistryKey{key, {}});
  return keys_.back();
}

std::vector<uint8_t> RegistryFile::EncodeText(const std::wstring& text) {
  std::vector<uint8_t> data;
  data.reserve((text.size() + 1) * 2);
  const auto put = [&data](uint32_t unit) {
    data.push_back(static_cast<uint8_t>(unit));
    data.push_back(static_cast<uint8_t>(unit >> 8));
  };
  for (wchar_t c : text) {
    uint32_t cp = static_cast<uint32_t>(c);
    if (cp > 0x10FFFF) {
      cp = 0xFFFD;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      put(0xD800 + (cp >> 10));
      put(0xDC00 + (cp & 0x3FF));
    } else {
      put(cp);
    }
  }
  put(0);
  return data;
}

std::wstring RegistryFile::DecodeText(const std::vector<uint8_t>& data) {
  std::wstring text;
  const size_t units = data.size() / 2;
  const auto unitAt = [&data](size_t i) {
    return static_cast<uint32_t>(data[2 * i] | (data[2 * i + 1] << 8));
  };
  for (size_t i = 0; i < units; ++i) {
    const uint32_t unit = unitAt(i);
    if (unit == 0) {
      break;
    }
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < units) {
      const uint32_t low = unitAt(i + 1);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        text += static_cast<wchar_t>(0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
        ++i;
        continue;
      }
    }
    // A lone surrogate stays what it is, as a Windows reader would get it.
    text += static_cast<wchar_t>(unit);
  }
  return text;
}

}  // namespace kro
