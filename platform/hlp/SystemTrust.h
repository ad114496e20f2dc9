#pragma once

// Internal to the client library: the one place where the trusted roots come from
// differs between platforms.

#include <openssl/ssl.h>

namespace hlp::detail {

/**
 * @brief Adds the platform's trusted root certificates to `context`'s verification store.
 * True when at least one source could be loaded; a false result leaves the context usable
 * (a trust file may still supply the roots a server needs).
 */
bool AddSystemTrust(SSL_CTX* context);

}  // namespace hlp::detail
