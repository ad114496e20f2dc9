#pragma once

namespace hlp {

/** @brief COM for the calling thread (multithreaded apartment); nothing on POSIX. */
class ComHelper {
 public:
  /**
   * @brief 0 when COM is usable on this thread: initialised now, already initialised, or the
   * thread already lives in a single-threaded apartment; otherwise the failing HRESULT.
   */
  static long ThreadInit();
  /** @brief Balances a ThreadInit that took a COM reference on this thread; else nothing. */
  static void ThreadDeinit();
};

}  // namespace hlp
