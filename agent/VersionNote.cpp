// The version text as an ELF note in the file that links this: the host and the module.

#include <cstddef>
#include <cstdint>

#include "agent/KroVersion.h"

namespace KroAgent {
namespace {

constexpr size_t Padded(size_t size) {
  return (size + 3) & ~size_t{3};
}

// The layout of one note: three words, then owner name and data, each padded to 4 bytes.
struct VersionNote {
  uint32_t nameSize;
  uint32_t dataSize;
  uint32_t type;
  char name[Padded(sizeof(kVersionNoteName))];
  char data[Padded(sizeof(kVersionText))];
};

constexpr VersionNote MakeVersionNote() {
  VersionNote note{sizeof(kVersionNoteName), sizeof(kVersionText), kVersionNoteType, {}, {}};
  for (size_t i = 0; i < sizeof(kVersionNoteName); ++i) {
    note.name[i] = kVersionNoteName[i];
  }
  for (size_t i = 0; i < sizeof(kVersionText); ++i) {
    note.data[i] = kVersionText[i];
  }
  return note;
}

// Referenced by nothing: "used" keeps the compiler from dropping it, "retain" the linker.
[[gnu::used, gnu::retain, gnu::section(".note.kroagent.version"),
  gnu::aligned(4)]] const VersionNote kVersionNote = MakeVersionNote();

}  // namespace
}  // namespace KroAgent
