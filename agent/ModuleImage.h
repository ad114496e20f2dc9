#pragma once

#include <cstddef>

namespace KroAgent {

/**
 * @brief Takes the pages of the module's code and constant data that start-up touched out of
 * the process; those used afterwards come back as they are touched.
 *
 * Start-up runs through code the agent never needs again (settings, TLS and store set-up, the
 * first registration of every routine); left mapped, those pages count against the agent for
 * as long as it runs. The pages stay cached by the system, so touching one again costs a soft
 * fault, not a read. Writable and relocated data is never touched. Returns the bytes released
 * (0 where the platform offers no such thing).
 */
std::size_t ReleaseStartupPages();

}  // namespace KroAgent
