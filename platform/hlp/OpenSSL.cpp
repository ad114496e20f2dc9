#include "hlp/OpenSSL.h"

#include <atomic>

#include <openssl/ssl.h>

namespace hlp {
namespace {

std::atomic<unsigned> gUsers{0};

}  // namespace

int OpenSSL::Init() {
  // Initialising is idempotent inside OpenSSL; the count only spares the call while in use.
  if (gUsers.load() == 0 &&
      OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr) !=
          1) {
    return 1;
  }
  gUsers.fetch_add(1);
  return 0;
}

void OpenSSL::Deinit() {
  // An unbalanced Deinit must not wrap the count. OPENSSL_cleanup is deliberately never
  // called: after it, OpenSSL refuses to initialise again for the life of the process.
  unsigned users = gUsers.load();
  while (users > 0 && !gUsers.compare_exchange_weak(users, users - 1)) {
  }
}

}  // namespace hlp
