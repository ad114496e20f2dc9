#include "server/FileCache.h"

#include <mutex>

#include "common/WinHelper.h"

namespace kro {
namespace {

// A file written at least this long before it is read is kept: any later write gets a later
// time stamp, even on file systems that count in whole seconds.
constexpr uint64_t kSettledTicks = 2 * 10'000'000;

}  // namespace

std::shared_ptr<const std::string> FileCache::Find(bool agent, std::string_view uri) const {
  std::shared_lock<std::shared_mutex> guard(lock_);
  const auto& entries = entries_[agent ? 1 : 0];
  const auto found = entries.find(uri);
  if (found == entries.end()) {
    return nullptr;
  }
  FileStamp now;
  if (!ReadFileStamp(found->second.file, now) || now != found->second.stamp) {
    return nullptr;
  }
  return found->second.answer;
}

void FileCache::Store(bool agent, std::string_view uri, const std::filesystem::path& file,
                      const FileStamp& stamp, std::string_view answer) {
  if (stamp.size > kMaxCachedFileBytes || answer.size() > kMaxCachedBytes ||
      stamp.modified + kSettledTicks > CurrentFileTime()) {
    return;
  }
  try {
    auto kept = std::make_shared<const std::string>(answer);
    std::unique_lock<std::shared_mutex> guard(lock_);
    auto& entries = entries_[agent ? 1 : 0];
    if (const auto old = entries.find(uri); old != entries.end()) {
      bytes_ -= old->second.answer->size();
      entries.erase(old);
    }
    if (bytes_ + kept->size() > kMaxCachedBytes) {
      // A UI is a few dozen files; starting over is simpler than ranking them and rarely needed.
      entries_[0].clear();
      entries_[1].clear();
      bytes_ = 0;
    }
    const size_t size = kept->size();
    entries.emplace(std::string(uri), Entry{file, stamp, std::move(kept)});
    bytes_ += size;
  } catch (...) {
    // Not kept: the file is read again next time.
  }
}

}  // namespace kro
