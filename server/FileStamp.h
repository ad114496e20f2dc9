#pragma once

#include <cstdint>
#include <filesystem>

namespace kro {

/** @brief What tells one version of a file from another without reading it. */
struct FileStamp {
  uint64_t size = 0;
  /** @brief The last write, in FILETIME ticks (100 ns since 1601) on every platform. */
  uint64_t modified = 0;
  /**
   * @brief The last change of content or metadata, also in FILETIME ticks; setting the write
   * time back is such a change.
   */
  uint64_t changed = 0;
  /**
   * @brief Which file it is (inode or file index, and its volume): a file renamed over it is
   * another one.
   */
  uint64_t identity = 0;
  uint64_t device = 0;
  /** @brief A regular file (links followed), not a folder or a device. */
  bool regular = false;

  bool operator==(const FileStamp&) const = default;
};

/** @brief The stamp of `file`; false when it cannot be looked at (missing, no access). */
bool ReadFileStamp(const std::filesystem::path& file, FileStamp& stamp);

}  // namespace kro
