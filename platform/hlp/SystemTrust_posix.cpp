#include "hlp/SystemTrust.h"

#include <openssl/err.h>

namespace hlp::detail {

bool AddSystemTrust(SSL_CTX* context) {
  // OpenSSL's own default paths are the distribution's CA bundle and hashed directory.
  const bool loaded = SSL_CTX_set_default_verify_paths(context) == 1;
  // A missing bundle leaves errors queued that would be misread as the next handshake's cause.
  ERR_clear_error();
  return loaded;
}

}  // namespace hlp::detail
