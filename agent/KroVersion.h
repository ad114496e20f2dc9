#pragma once

#include <cstdint>

namespace KroAgent {

/** @brief The module's version text: "GetRoleVer", the products report and the host show it. */
inline constexpr char kVersionText[] = "7.0.222.0";

/**
 * @brief The ELF note that carries a file's version text on Linux, where files have no version
 * resource: owner name "KroAgent", type 1, the text with its zero as the note's data. The build
 * stamps it into the host and the module (section ".note.kroagent.version"); a product stamps
 * its executables the same way to have their version read.
 */
inline constexpr char kVersionNoteName[] = "KroAgent";
inline constexpr uint32_t kVersionNoteType = 1;

}  // namespace KroAgent
