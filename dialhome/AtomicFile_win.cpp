#include "dialhome/AtomicFile.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <limits>

#include "core/KroStatus.h"

namespace kro {

namespace {

/** @brief A name beside `file` that no other writer, in this process or another, picks. */
std::wstring TemporaryName(const std::filesystem::path& file) {
  static std::atomic<unsigned> counter{0};
  return file.native() + L".tmp-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
         std::to_wstring(counter.fetch_add(1));
}

bool WriteAll(HANDLE handle, const std::string& content) {
  const char* data = content.data();
  size_t left = content.size();
  while (left > 0) {
    const DWORD chunk =
        static_cast<DWORD>(std::min<size_t>(left, std::numeric_limits<DWORD>::max()));
    DWORD written = 0;
    if (!WriteFile(handle, data, chunk, &written, nullptr) || written == 0) {
      return false;
    }
    data += written;
    left -= written;
  }
  return true;
}

}  // namespace

long WriteFileAtomically(const std::filesystem::path& file, const std::string& content) {
  try {
    const std::wstring temporary = TemporaryName(file);
    const HANDLE handle = CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
      return status::FileOpenFailed;
    }
    const bool written = WriteAll(handle, content) && FlushFileBuffers(handle);
    const bool closed = CloseHandle(handle);
    // Write-through: the call returns only once the rename itself is on the disk.
    if (!written || !closed ||
        !MoveFileExW(temporary.c_str(), file.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
      DeleteFileW(temporary.c_str());
      return status::FileWriteFailed;
    }
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

}  // namespace kro
