#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "server/FileStamp.h"

namespace kro {

/** @brief Largest file whose answer FileCache keeps. */
inline constexpr size_t kMaxCachedFileBytes = 256 * 1024;
/** @brief Largest total of the answers FileCache keeps. */
inline constexpr size_t kMaxCachedBytes = 2 * 1024 * 1024;

/**
 * @brief The complete answers of the UI files served lately, by request path, each checked
 * against its file's stamp whenever it is used so that a changed file is read again.
 * Thread-safe.
 *
 * Only a file last written a while before it was read is kept: time stamps are coarse, and a
 * file still being written could change again without its stamp changing.
 */
class FileCache {
 public:
  /** @brief The answer kept for `uri`, if its file still has the stamp it was read with. */
  std::shared_ptr<const std::string> Find(bool agent, std::string_view uri) const;

  /**
   * @brief Keeps `answer` for `uri`, made from `file` as it was at `stamp`, unless the file is
   * too large or too freshly written. Never throws.
   */
  void Store(bool agent, std::string_view uri, const std::filesystem::path& file,
             const FileStamp& stamp, std::string_view answer);

 private:
  struct Entry {
    std::filesystem::path file;
    FileStamp stamp;
    std::shared_ptr<const std::string> answer;
  };

  mutable std::shared_mutex lock_;
  // Agent paths and the other components' paths map to files differently.
  std::map<std::string, Entry, std::less<>> entries_[2];
  size_t bytes_ = 0;
};

}  // namespace kro
