#pragma once

namespace hlp::detail {

/**
 * @brief Gives memory the process has freed back to the system. After a crowd of connections
 * has gone, the allocator would otherwise keep the peak's pages resident for good.
 */
void ReturnFreeMemory();

/**
 * @brief Whether the event loop keeps a record for every socket it has ever watched until the
 * loop itself goes (Asio's epoll reactor does; completion ports do not). Where it does, a
 * crowd's records would hold its memory for good, so the loop is renewed once it is gone.
 */
bool LoopKeepsClosedSocketRecords();

}  // namespace hlp::detail
