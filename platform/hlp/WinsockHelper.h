#pragma once

#include <cstddef>

namespace hlp {

/** @brief Socket library start-up for the process (WSAStartup on Windows); calls are counted. */
class WinsockHelper {
 public:
  /** @brief 0 on success. */
  static int Init();
  static void Deinit();

  /**
   * @brief Whether listening sockets set SO_REUSEADDR: on POSIX so that a restart can rebind
   * at once; never on Windows, where it would let another process take the port over.
   */
  static bool ListenersReuseAddress();
  /**
   * @brief How many connections a server may keep open, at most `wanted`: on POSIX what the
   * process's descriptor limit leaves after a reserve for files, logs and outgoing connections.
   */
  static size_t ConnectionLimit(size_t wanted);
};

}  // namespace hlp
