// The Windows headers come first: OpenSSL's own undo the names wincrypt.h defines (X509_NAME).
#include <windows.h>
// After windows.h, which defines the types it uses.
#include <wincrypt.h>

#include "hlp/SystemTrust.h"

#include <openssl/err.h>
#include <openssl/x509.h>

namespace hlp::detail {

bool AddSystemTrust(SSL_CTX* context) {
  // OpenSSL's default paths point into its build tree, which no Windows machine has; the
  // roots Windows trusts live in the "ROOT" system store instead. Both are loaded, so that a
  // bundle placed there deliberately still counts.
  bool loaded = SSL_CTX_set_default_verify_paths(context) == 1;
  X509_STORE* store = SSL_CTX_get_cert_store(context);
  HCERTSTORE system = CertOpenSystemStoreW(0, L"ROOT");
  if (store != nullptr && system != nullptr) {
    PCCERT_CONTEXT certificate = nullptr;
    while ((certificate = CertEnumCertificatesInStore(system, certificate)) != nullptr) {
      const unsigned char* der = certificate->pbCertEncoded;
      X509* x509 = d2i_X509(nullptr, &der, static_cast<long>(certificate->cbCertEncoded));
      if (x509 != nullptr) {
        // A duplicate of a root already present is refused harmlessly.
        loaded = X509_STORE_add_cert(store, x509) == 1 || loaded;
        X509_free(x509);
      }
    }
  }
  if (system != nullptr) {
    CertCloseStore(system, 0);
  }
  ERR_clear_error();
  return loaded;
}

}  // namespace hlp::detail
