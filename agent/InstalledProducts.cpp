#include "agent/InstalledProducts.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <system_error>

#include "agent/KroVersion.h"
#include "common/SettingsText.h"
#include "common/WinHelper.h"
#include "core/InstallLayout.h"
#include "core/KroStatus.h"
#include "core/RoutineTable.h"
#include "hlp/Json.h"
#include "logging_support/logging_support.h"

namespace KroAgent {

namespace status = kro::status;

namespace {

constexpr int32_t kGrowthStep = 4;
// Longest executable path the default Kesta folder is derived from.
constexpr size_t kMaxExecutablePath = 1023;

// Whoever installed the agent installed the service beside it; its version stands for the
// product's when the file gives none.
constexpr char kServiceExecutable[] = "aservice.exe";
// The product this agent belongs to; its version is the module's own.
constexpr uint16_t kOwnProductId = 1;

/** @brief Copies `value` whole or not at all: a too long value leaves the field empty. */
template <size_t N>
bool CopyField(char (&field)[N], std::string_view value) {
  if (value.size() >= N) {
    field[0] = '\0';
    return false;
  }
  std::memcpy(field, value.data(), value.size());
  field[value.size()] = '\0';
  return true;
}

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return lower;
}

void LowerInPlace(char* text) {
  for (; *text != '\0'; ++text) {
    if (*text >= 'A' && *text <= 'Z') {
      *text = static_cast<char>(*text - 'A' + 'a');
    }
  }
}

/** @brief A string member's text; empty when absent or of another type. */
std::string StringMember(const hlp::JsonValue& object, std::string_view name) {
  const hlp::JsonValue* value = object.FindMember(name);
  return value != nullptr ? value->GetString() : std::string();
}

/** @brief Our narrow paths are UTF-8; the file system wants to know that explicitly. */
std::filesystem::path PathOf(const std::string& utf8) {
  return std::filesystem::path(
      std::u8string(reinterpret_cast<const char8_t*>(utf8.data()), utf8.size()));
}

std::string Utf8Of(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(reinterpret_cast<const char*>(text.data()), text.size());
}

long ReadWholeFile(const std::string& file, std::string& text) {
  std::ifstream in(PathOf(file), std::ios::binary);
  if (!in) {
    return status::FileOpenFailed;
  }
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size < 0) {
    return status::FileReadFailed;
  }
  if (size == 0) {
    return status::MalformedData;
  }
  in.seekg(0, std::ios::beg);
  text.resize(static_cast<size_t>(size));
  if (!in.read(text.data(), size) || in.gcount() != size) {
    return status::FileReadFailed;
  }
  return status::Ok;
}

/** @brief Version text of the last executable in `folder` that has one. */
long ScanFolderVersion(const std::string& folder, std::string& versionText) {
  std::error_code ec;
  std::filesystem::directory_iterator it(PathOf(folder), ec);
  if (ec) {
    return status::FolderListFailed;
  }
  for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
    if (ec) {
      return status::FolderListFailed;
    }
    const std::string name = Utf8Of(it->path().filename());
    if (it->is_directory(ec) || name.find(".exe") == std::string::npos) {
      continue;
    }
    std::string text;
    if (detail::ReadFileVersion(Utf8Of(it->path()), text) == status::Ok) {
      versionText = std::move(text);
    }
  }
  return ec ? status::FolderListFailed : status::Ok;
}

}  // namespace

bool PackVersionText(std::string_view text, uint32_t& packed) {
  uint32_t parts[4] = {0, 0, 0, 0};
  size_t pos = 0;
  for (int part = 0; part < 4; ++part) {
    const size_t start = pos;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      parts[part] = parts[part] * 10 + static_cast<uint32_t>(text[pos] - '0');
      ++pos;
    }
    if (pos == start) {
      return false;
    }
    if (pos == text.size()) {
      packed = ((parts[0] & 0xFF) << 24) | ((parts[1] & 0xFF) << 16) | ((parts[2] & 0xFFF) << 4) |
               (parts[3] & 0xF);
      return true;
    }
    if (text[pos] != '.') {
      return false;
    }
    ++pos;
  }
  // A fifth part, or a dot after the fourth.
  return false;
}

// ---- InstalledProducts -------------------------------------------------------------------------

InstalledProducts& InstalledProducts::Instance() {
  // Never destroyed: server threads may still ask while the process ends.
  static InstalledProducts* const instance = new InstalledProducts();
  return *instance;
}

InstalledProducts::InstalledProducts() = default;
InstalledProducts::~InstalledProducts() = default;

void InstalledProducts::EnsureKestaFolder() {
  if (kestaFolderKnown_) {
    return;
  }
  kestaFolderKnown_ = true;
  std::wstring wide;
  std::string exe;
  if (kro::GetHostExecutablePath(wide) != status::Ok || kro::WideToUtf8(wide, exe) != status::Ok ||
      exe.size() > kMaxExecutablePath) {
    return;
  }
  // The executable lives in "<Kesta>/bin" or the like: keep the path up to and including the
  // separator before the executable's folder.
  const size_t last = exe.rfind(kro::kPathSeparatorA);
  if (last == std::string::npos || last == 0) {
    return;
  }
  const size_t secondLast = exe.rfind(kro::kPathSeparatorA, last - 1);
  if (secondLast != std::string::npos) {
    kestaFolder_ = exe.substr(0, secondLast + 1);
  }
}

long InstalledProducts::SetFolders(const std::string& installFolder,
                                   const std::string& kestaFolder) {
  try {
    std::lock_guard<std::mutex> guard(lock_);
    installFolder_ = installFolder;
    if (!kestaFolder.empty()) {
      kestaFolder_ = kestaFolder;
      if (kestaFolder_.back() != kro::kPathSeparatorA) {
        kestaFolder_ += kro::kPathSeparatorA;
      }
      kestaFolderKnown_ = true;
    }
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

std::string InstalledProducts::KestaFolder() {
  try {
    std::lock_guard<std::mutex> guard(lock_);
    EnsureKestaFolder();
    return kestaFolder_;
  } catch (...) {
    return {};
  }
}

long InstalledProducts::ReloadProducts() {
  try {
    std::lock_guard<std::mutex> guard(lock_);
    versions_.clear();
    byId_.clear();
    byName_.clear();
    table_.reset(new (std::nothrow) ProductRecord[kGrowthStep]());
    count_ = 0;
    capacity_ = table_ ? kGrowthStep : 0;
    freeSlots_ = capacity_;
    if (!table_) {
      return status::OutOfMemory;
    }

    EnsureKestaFolder();
    const std::string file = kestaFolder_ + kro::kProductsFile;
    std::string text;
    if (const long result = ReadWholeFile(file, text); result != status::Ok) {
      if (result == status::MalformedData) {
        KRO_LOG_ERROR << "Products file " << file << " ignored: it is empty";
      }
      return result;
    }
    std::string why;
    const long result = ParseProducts(text, why);
    if (!why.empty()) {
      // No product is known then; whoever edited the file learns where it went wrong.
      KRO_LOG_ERROR << "Products file " << file << " ignored: " << why;
    }
    return result;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long InstalledProducts::Grow() {
  std::unique_ptr<ProductRecord[]> grown(
      new (std::nothrow) ProductRecord[static_cast<size_t>(capacity_ + kGrowthStep)]());
  if (!grown) {
    return status::OutOfMemory;
  }
  std::copy(table_.get(), table_.get() + capacity_, grown.get());
  for (auto& [id, record] : byId_) {
    record = grown.get() + (record - table_.get());
  }
  for (auto& [name, record] : byName_) {
    record = grown.get() + (record - table_.get());
  }
  table_ = std::move(grown);
  capacity_ += kGrowthStep;
  freeSlots_ += kGrowthStep;
  return status::Ok;
}

long InstalledProducts::ParseProducts(const std::string& text, std::string& why) {
  const std::unique_ptr<hlp::JsonValue> root = kro::ParseSettingsText(text, why);
  const hlp::JsonValue* products = root ? root->FindMember("products") : nullptr;
  if (products == nullptr || !products->IsArray()) {
    if (root != nullptr) {
      why = "it has no \"products\" array";
    }
    return status::NotAvailable;
  }
  long result = status::Ok;
  for (size_t i = 0; i < products->Size(); ++i) {
    if (freeSlots_ == 0) {
      if (result = Grow(); result != status::Ok) {
        break;
      }
    }
    // A product that fails leaves its slot to the next one.
    result = ParseProduct(*products->At(i), capacity_ - freeSlots_);
    if (!status::Failed(result)) {
      --freeSlots_;
      ++count_;
    }
  }
  return byId_.empty() ? status::NotAvailable : result;
}

long InstalledProducts::ParseProduct(const hlp::JsonValue& element, int32_t slot) {
  const hlp::JsonValue* idValue = element.FindMember("id");
  if (idValue == nullptr || !idValue->IsInteger() || idValue->GetUint64() == 0 ||
      idValue->GetUint64() > UINT16_MAX) {
    return status::NotAvailable;
  }
  if (slot < 0 || slot >= capacity_) {
    return status::OutOfRange;
  }
  const auto id = static_cast<uint16_t>(idValue->GetUint64());
  ProductRecord& record = table_[static_cast<size_t>(slot)];
  record = ProductRecord{};
  record.id = id;
  CopyField(record.name, StringMember(element, "name"));

  const std::string key = Lower(record.name);
  if (byName_.contains(key) || byId_.contains(id)) {
    return status::DuplicateProduct;
  }
  byName_.emplace(key, &record);
  byId_.emplace(id, &record);

  if (const std::string path = StringMember(element, "path"); !path.empty()) {
    const std::string full = detail::IsAbsoluteProductPath(path) ? path : kestaFolder_ + path;
    const size_t length = std::min(full.size(), sizeof(record.path) - 1);
    std::memcpy(record.path, full.data(), length);
    record.path[length] = '\0';
  }

  if (const long result = LearnVersion(record, element); status::Failed(result)) {
    // The slot goes to the next product: nothing may keep pointing at it.
    byName_.erase(key);
    byId_.erase(id);
    return result;
  }

  CopyField(record.displayName, StringMember(element, "displayName"));
  if (CopyField(record.url, StringMember(element, "url"))) {
    LowerInPlace(record.url);
  }
  CopyField(record.patchLevel, StringMember(element, "patchLevel"));
  return status::Ok;
}

long InstalledProducts::LearnVersion(ProductRecord& record, const hlp::JsonValue& element) {
  if (const hlp::JsonValue* version = element.FindMember("version"); version != nullptr) {
    RecordVersion(record, version->GetString());
    return status::Ok;
  }
  if (record.id == kOwnProductId) {
    RecordVersion(record, kVersionText);
    return status::Ok;
  }
  std::string text;
  if (!installFolder_.empty()) {
    detail::ReadFileVersion(installFolder_ + kServiceExecutable, text);
  } else if (const long result =
                 ScanFolderVersion(record.path + std::string(1, kro::kPathSeparatorA), text);
             status::Failed(result)) {
    return result;
  }
  RecordVersion(record, text);
  return status::Ok;
}

void InstalledProducts::RecordVersion(ProductRecord& record, std::string_view text) {
  uint32_t packed = 0;
  if (!PackVersionText(text, packed) || packed == 0) {
    return;
  }
  ++record.versionCount;
  versions_.emplace(static_cast<uint16_t>((record.id << 8) | (packed >> 24)), packed);
  record.packedVersion = packed;
  CopyField(record.versionText, text);
}

long InstalledProducts::QueryProducts(ProductMap& out) {
  try {
    std::lock_guard<std::mutex> guard(lock_);
    for (const auto& [id, record] : byId_) {
      out.insert_or_assign(id, *record);
    }
    return byId_.empty() ? kNoProducts : status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long InstalledProducts::FindById(uint16_t id, ProductRecord& out) {
  try {
    std::lock_guard<std::mutex> guard(lock_);
    const auto it = byId_.find(id);
    if (it == byId_.end()) {
      return status::NotFound;
    }
    out = *it->second;
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long InstalledProducts::FindByName(std::string_view name, ProductRecord& out) {
  try {
    std::lock_guard<std::mutex> guard(lock_);
    const auto it = byName_.find(Lower(name));
    if (it == byName_.end()) {
      return status::NotFound;
    }
    out = *it->second;
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long InstalledProducts::FindVersion(uint16_t id, uint8_t major, uint32_t& packed) {
  try {
    std::lock_guard<std::mutex> guard(lock_);
    const auto it = versions_.find(static_cast<uint16_t>((id << 8) | major));
    if (it == versions_.end()) {
      return status::NotFound;
    }
    packed = it->second;
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

// ---- The report routine ------------------------------------------------------------------------

long GetInstalledProductsBrowser(const char* /*request*/, size_t /*requestLen*/,
                                 const char** response, size_t* responseLen) {
  try {
    if (response == nullptr || responseLen == nullptr) {
      return status::NotAvailable;
    }
    InstalledProducts& products = InstalledProducts::Instance();
    ProductMap table;
    products.QueryProducts(table);  // an empty table is still a report
    std::string root = products.KestaFolder();
    if (!root.empty()) {
      root.pop_back();
    }

    std::ostringstream out;
    hlp::JsonWriter writer(out);
    writer.Object();
    writer.Name("kro_version");
    writer.String(kVersionText);
    writer.Name("root_path");
    writer.String(root);
    writer.Name("prods");
    writer.Array();
    for (const auto& [id, record] : table) {
      writer.Object();
      writer.Name("name");
      writer.String(record.displayName);
      writer.Name("key");
      writer.String(record.name);
      writer.Name("url");
      writer.String(std::string("/") + record.url + "/");
      writer.Name("version");
      writer.String(record.versionText);
      writer.Name("patchLevel");
      writer.String(record.patchLevel);
      writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
    if (!writer.IsComplete()) {
      return status::MalformedData;
    }

    return HandOverAnswer(out.str(), response, responseLen);
  } catch (...) {
    return status::Failure;
  }
}

}  // namespace KroAgent
