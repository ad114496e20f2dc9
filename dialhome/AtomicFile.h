#pragma once

#include <filesystem>
#include <string>

namespace kro {

/**
 * @brief Replaces `file` with `content` so that a crash leaves either the old content or the
 * new, never a torn or empty file.
 *
 * The content goes to a temporary file beside the target (same folder, so the final rename
 * stays within one file system), is flushed to the disk, and is then renamed over the target.
 * The temporary file is removed on every failure. 0x80000011 when the temporary file cannot be
 * created; 0x80000014 when writing, flushing or the rename fails. Never throws.
 */
long WriteFileAtomically(const std::filesystem::path& file, const std::string& content);

}  // namespace kro
