#pragma once

namespace hlp {

/** @brief Process-wide TLS library set-up; calls are counted. */
class OpenSSL {
 public:
  /** @brief 0 on success (error strings loaded), non-zero when OpenSSL cannot initialise. */
  static int Init();
  /**
   * @brief Undoes one Init. The library itself stays loaded until the process ends: once torn
   * down it could not be initialised again by a module loaded later in the same process.
   */
  static void Deinit();
};

}  // namespace hlp
