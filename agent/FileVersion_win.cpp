// The "FileVersion" string of an executable's version resource.

#include <windows.h>

#include <cwchar>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "agent/InstalledProducts.h"
#include "common/WinHelper.h"
#include "core/KroStatus.h"

namespace KroAgent::detail {

namespace {

struct LanguageCodePage {
  WORD language;
  WORD codePage;
};

}  // namespace

long ReadFileVersion(const std::string& file, std::string& versionText) {
  namespace status = kro::status;
  try {
    // The module's narrow paths are UTF-8, which the ANSI forms of these calls would misread;
    // the wide forms see the same file under any name.
    std::wstring wideFile;
    if (const long result = kro::Utf8ToWide(file, wideFile); status::Failed(result)) {
      return result;
    }
    DWORD handle = 0;
    const DWORD size = GetFileVersionInfoSizeW(wideFile.c_str(), &handle);
    if (size == 0) {
      return status::MalformedData;
    }
    std::unique_ptr<BYTE[]> block(new (std::nothrow) BYTE[size]);
    if (!block) {
      return status::OutOfMemory;
    }
    if (!GetFileVersionInfoW(wideFile.c_str(), 0, size, block.get())) {
      return status::NotFound;
    }

    LanguageCodePage* translations = nullptr;
    UINT translationBytes = 0;
    if (!VerQueryValueW(block.get(), L"\\VarFileInfo\\Translation",
                        reinterpret_cast<void**>(&translations), &translationBytes)) {
      translationBytes = 0;
    }
    // The first language that names a version wins.
    for (UINT i = 0; i < translationBytes / sizeof(LanguageCodePage); ++i) {
      wchar_t query[64];
      std::swprintf(query, sizeof(query) / sizeof(query[0]),
                    L"\\StringFileInfo\\%04x%04x\\FileVersion", translations[i].language,
                    translations[i].codePage);
      wchar_t* version = nullptr;
      UINT length = 0;
      if (VerQueryValueW(block.get(), query, reinterpret_cast<void**>(&version), &length) &&
          version != nullptr && length > 0) {
        std::string text;
        if (*version != L'\0' &&
            kro::WideToUtf8(version, std::wcslen(version), text) == status::Ok) {
          versionText = std::move(text);
        }
        break;
      }
    }
    return status::Ok;
  } catch (...) {
    return kro::status::OutOfMemory;
  }
}

bool IsAbsoluteProductPath(std::string_view path) {
  return path.size() > 1 && path[1] == ':';
}

}  // namespace KroAgent::detail
