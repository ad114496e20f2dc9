#pragma once

namespace hlp::detail {

/**
 * @brief Gives memory the process has freed back to the system. After a crowd of connections
 * has gone, the allocator would otherwise keep the peak's pages resident for good.
 */
void ReturnFreeMemory();

}  // namespace hlp::detail
