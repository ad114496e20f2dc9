#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/RoutineTable.h"

namespace kro {

/**
 * @brief Whether a TCP port can be bound on this machine: binds a stream socket to the port on
 * every IPv4 address and closes it again, without listening.
 *
 * 0 when the bind succeeds; 0x80000206 when the socket library, the socket or the bind fails
 * (someone holds the port, or it is not ours to take). Never throws.
 */
long TestPortAvailable(uint16_t port);

/**
 * @brief The routine "ModifyCommunicationPort": the management server asks the agent to move to
 * another port.
 *
 * The routine only proves that the port is free and leaves it in the agent's pending port; the
 * agent's main work item makes the move. The pending port is shared with that thread, so it is
 * written atomically and this object merely refers to it.
 */
class EndNodeModifyPort {
 public:
  /** @brief `pendingPort` must outlive this object and every registration of it. */
  explicit EndNodeModifyPort(std::atomic<uint32_t>& pendingPort);

  /**
   * @brief Clears the pending port and registers "ModifyCommunicationPort" bound to this
   * object. 0 on success (also when the name was taken already), 0x80000030 when registering
   * throws.
   */
  long Register(KroAgent::RoutineTable& routines);

  /**
   * @brief The routine. The request is {"systemId":"<number>","port":"<number>"} (numbers may
   * also be JSON numbers), each read by stream extraction as a 64-bit and a 16-bit unsigned
   * number; the reply says "success" or "error" and echoes the system id.
   *
   * A bad request and an unavailable port alike give the error reply, and the call still
   * succeeds: the status is that of handing the reply back (0x80000030 when its buffer cannot
   * be allocated, 0x80000114 when there is nowhere to put it). The reply buffer is a
   * zero-terminated char array from the non-throwing array new; the caller frees it with
   * delete[].
   */
  long ModifyCommunicationPort(const char* request, size_t requestLen, const char** response,
                               size_t* responseLen);

 private:
  std::atomic<uint32_t>& pendingPort_;
};

}  // namespace kro
