#include "dialhome/AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "core/KroStatus.h"

namespace kro {

namespace {

/** @brief A name beside `file` that no other writer, in this process or another, picks. */
std::string TemporaryName(const std::filesystem::path& file) {
  static std::atomic<unsigned> counter{0};
  return file.native() + ".tmp-" + std::to_string(::getpid()) + "-" +
         std::to_string(counter.fetch_add(1));
}

bool WriteAll(int fd, const std::string& content) {
  const char* data = content.data();
  size_t left = content.size();
  while (left > 0) {
    const ssize_t written = ::write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
  return true;
}

/** @brief Makes the rename itself durable; a folder that cannot be synced is no failure. */
void SyncFolderOf(const std::filesystem::path& file) {
  std::filesystem::path folder = file.parent_path();
  if (folder.empty()) {
    folder = ".";
  }
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

}  // namespace

long WriteFileAtomically(const std::filesystem::path& file, const std::string& content) {
  try {
    const std::string temporary = TemporaryName(file);
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
      return status::FileOpenFailed;
    }
    const bool written = WriteAll(fd, content) && ::fsync(fd) == 0;
    const bool closed = ::close(fd) == 0;
    if (!written || !closed || ::rename(temporary.c_str(), file.c_str()) != 0) {
      ::unlink(temporary.c_str());
      return status::FileWriteFailed;
    }
    SyncFolderOf(file);
    return status::Ok;
  } catch (...) {
    return status::Failure;
  }
}

}  // namespace kro
