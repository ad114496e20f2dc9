#include "server/FileStamp.h"

#include <sys/stat.h>

namespace kro {
namespace {

constexpr uint64_t kTicksPerSecond = 10'000'000;
// Seconds from 1601-01-01 to 1970-01-01.
constexpr uint64_t kEpochDifference = 11'644'473'600;

uint64_t FileTimeOf(const timespec& time) {
  const uint64_t seconds = time.tv_sec > 0 ? static_cast<uint64_t>(time.tv_sec) : 0;
  return (seconds + kEpochDifference) * kTicksPerSecond + static_cast<uint64_t>(time.tv_nsec) / 100;
}

}  // namespace

bool ReadFileStamp(const std::filesystem::path& file, FileStamp& stamp) {
  // One stat: std::filesystem would make one per question.
  struct stat info {};
  if (::stat(file.c_str(), &info) != 0) {
    return false;
  }
  stamp.regular = S_ISREG(info.st_mode);
  stamp.size = static_cast<uint64_t>(info.st_size);
  stamp.modified = FileTimeOf(info.st_mtim);
  stamp.changed = FileTimeOf(info.st_ctim);
  stamp.identity = static_cast<uint64_t>(info.st_ino);
  stamp.device = static_cast<uint64_t>(info.st_dev);
  return true;
}

}  // namespace kro
