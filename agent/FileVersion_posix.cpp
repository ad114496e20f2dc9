// A file's version text on POSIX: the "KroAgent" ELF note (see KroVersion.h), found in any of
// the file's note sections. Every size and offset the file states is checked against the file
// before it is used: the file may be anything a product folder holds.

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "agent/InstalledProducts.h"
#include "agent/KroVersion.h"
#include "core/KroStatus.h"

namespace KroAgent::detail {

namespace {

namespace status = kro::status;

constexpr uint32_t kSectionTypeNote = 7;
// A version note is a few dozen bytes; a note section beyond this is not read.
constexpr uint64_t kMaxNoteSectionBytes = 1 << 20;
constexpr uint64_t kMaxSections = 0xFF00;  // the most a file can number without extension
constexpr uint64_t kMaxSectionEntryBytes = 0x100;
constexpr unsigned char kElfMagic[] = {0x7F, 'E', 'L', 'F'};

/** @brief Reads the file's bytes at offset, which must lie wholly within the file. */
class ElfFile {
 public:
  explicit ElfFile(const std::string& path) : in_(path, std::ios::binary) {
    if (in_) {
      in_.seekg(0, std::ios::end);
      const std::streamoff end = in_.tellg();
      size_ = end > 0 ? static_cast<uint64_t>(end) : 0;
    }
  }

  bool IsOpen() const { return static_cast<bool>(in_); }

  bool Read(uint64_t offset, uint64_t length, std::vector<unsigned char>& out) {
    if (offset > size_ || length > size_ - offset) {
      return false;
    }
    out.resize(static_cast<size_t>(length));
    in_.clear();
    in_.seekg(static_cast<std::streamoff>(offset));
    return length == 0 || static_cast<bool>(in_.read(reinterpret_cast<char*>(out.data()),
                                                     static_cast<std::streamsize>(length)));
  }

 private:
  std::ifstream in_;
  uint64_t size_ = 0;
};

/** @brief Little- or big-endian unsigned words of a byte buffer, checked against its end. */
struct Words {
  const std::vector<unsigned char>& bytes;
  bool bigEndian;

  bool Get(size_t offset, size_t width, uint64_t& value) const {
    if (offset > bytes.size() || width > bytes.size() - offset) {
      return false;
    }
    value = 0;
    for (size_t i = 0; i < width; ++i) {
      const unsigned char byte = bytes[offset + (bigEndian ? i : width - 1 - i)];
      value = (value << 8) | byte;
    }
    return true;
  }
};

/** @brief The version text of the notes in one note section; false when none is ours. */
bool FindVersionNote(const Words& notes, uint64_t alignment, std::string& versionText) {
  const auto padded = [alignment](uint64_t size) {
    return (size + alignment - 1) & ~(alignment - 1);
  };
  size_t pos = 0;
  while (pos < notes.bytes.size()) {
    uint64_t nameSize = 0;
    uint64_t dataSize = 0;
    uint64_t type = 0;
    if (!notes.Get(pos, 4, nameSize) || !notes.Get(pos + 4, 4, dataSize) ||
        !notes.Get(pos + 8, 4, type)) {
      return false;
    }
    const uint64_t rest = notes.bytes.size() - (pos + 12);
    if (padded(nameSize) > rest || padded(dataSize) > rest - padded(nameSize)) {
      return false;
    }
    const size_t name = pos + 12;
    const size_t data = name + static_cast<size_t>(padded(nameSize));
    if (type == kVersionNoteType && nameSize == sizeof(kVersionNoteName) &&
        std::memcmp(&notes.bytes[name], kVersionNoteName, sizeof(kVersionNoteName)) == 0) {
      const char* text = reinterpret_cast<const char*>(notes.bytes.data() + data);
      versionText.assign(text, strnlen(text, static_cast<size_t>(dataSize)));
      return true;
    }
    pos = data + static_cast<size_t>(padded(dataSize));
  }
  return false;
}

}  // namespace

long ReadFileVersion(const std::string& file, std::string& versionText) {
  try {
    versionText.clear();
    ElfFile elf(file);
    if (!elf.IsOpen()) {
      return status::FileOpenFailed;
    }
    std::vector<unsigned char> header;
    if (!elf.Read(0, 64, header) && !elf.Read(0, 52, header)) {
      return status::MalformedData;
    }
    // Class 1 is 32-bit, 2 is 64-bit; data encoding 1 is little-endian, 2 big-endian.
    if (std::memcmp(header.data(), kElfMagic, sizeof(kElfMagic)) != 0 ||
        (header[4] != 1 && header[4] != 2) || (header[5] != 1 && header[5] != 2)) {
      return status::MalformedData;
    }
    const bool wide = header[4] == 2;
    const Words head{header, header[5] == 2};
    uint64_t tableOffset = 0;
    uint64_t entrySize = 0;
    uint64_t count = 0;
    if (!head.Get(wide ? 0x28 : 0x20, wide ? 8 : 4, tableOffset) ||
        !head.Get(wide ? 0x3A : 0x2E, 2, entrySize) || !head.Get(wide ? 0x3C : 0x30, 2, count) ||
        entrySize < (wide ? 0x40u : 0x28u) || entrySize > kMaxSectionEntryBytes ||
        count > kMaxSections) {
      return status::MalformedData;
    }
    std::vector<unsigned char> table;
    if (!elf.Read(tableOffset, entrySize * count, table)) {
      return status::MalformedData;
    }
    const Words sections{table, head.bigEndian};
    std::vector<unsigned char> notes;
    for (uint64_t i = 0; i < count; ++i) {
      const size_t entry = static_cast<size_t>(i * entrySize);
      uint64_t type = 0;
      uint64_t offset = 0;
      uint64_t size = 0;
      uint64_t alignment = 0;
      if (!sections.Get(entry + 4, 4, type) ||
          !sections.Get(entry + (wide ? 0x18 : 0x10), wide ? 8 : 4, offset) ||
          !sections.Get(entry + (wide ? 0x20 : 0x14), wide ? 8 : 4, size) ||
          !sections.Get(entry + (wide ? 0x30 : 0x20), wide ? 8 : 4, alignment)) {
        return status::MalformedData;
      }
      if (type != kSectionTypeNote || size > kMaxNoteSectionBytes ||
          !elf.Read(offset, size, notes)) {
        continue;
      }
      // Notes are padded to 4 bytes, or to 8 in a section aligned so (GNU properties).
      if (FindVersionNote(Words{notes, head.bigEndian}, alignment == 8 ? 8 : 4, versionText)) {
        return status::Ok;
      }
    }
    return status::NotFound;
  } catch (...) {
    versionText.clear();
    return status::OutOfMemory;
  }
}

bool IsAbsoluteProductPath(std::string_view path) {
  return !path.empty() && path[0] == '/';
}

}  // namespace KroAgent::detail
