#include "server/FileStamp.h"

#include <windows.h>

namespace kro {

bool ReadFileStamp(const std::filesystem::path& file, FileStamp& stamp) {
  // Opened without access rights, only to ask; the handle follows links as reading would.
  const HANDLE handle =
      CreateFileW(file.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    return false;
  }
  BY_HANDLE_FILE_INFORMATION info{};
  FILE_BASIC_INFO times{};
  const DWORD type = GetFileType(handle);
  const bool known =
      GetFileInformationByHandle(handle, &info) != 0 &&
      GetFileInformationByHandleEx(handle, FileBasicInfo, &times, sizeof(times)) != 0;
  CloseHandle(handle);
  if (!known) {
    return false;
  }
  stamp.regular = type == FILE_TYPE_DISK && (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
  stamp.size = (static_cast<uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
  stamp.modified = (static_cast<uint64_t>(info.ftLastWriteTime.dwHighDateTime) << 32) |
                   info.ftLastWriteTime.dwLowDateTime;
  stamp.changed = static_cast<uint64_t>(times.ChangeTime.QuadPart);
  stamp.identity = (static_cast<uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
  stamp.device = info.dwVolumeSerialNumber;
  return true;
}

}  // namespace kro
