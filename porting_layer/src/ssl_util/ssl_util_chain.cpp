// The intermediates of a stored certificate. A PEM certificate file holds the leaf followed by
// the certificates that issued it; the store's loader installs the leaf only. When it records
// the name of what it loaded (SSL_set_cert_info), the rest of the file goes onto the context
// as the leaf's chain, so every handshake on the object sends it. A DER file holds one
// certificate and leaves the chain empty.
#include <openssl/err.h>
#include <openssl/pem.h>

#include "ossl_ptr.h"
#include "ssl_store.h"
#include "ssl_util.h"
#include "ssl_util_internal.h"
#include "ssl_util_log.h"

namespace kora::util {
namespace {

// Adds every certificate after the first in `pem` to the chain of ctx's certificate, provided
// the first is that certificate. The count added, or -1.
int add_intermediates(SSL_CTX* ctx, const SecureBytes& file) {
  BioPtr bio(BIO_new_mem_buf(file.data(), static_cast<int>(file.size())));
  X509Ptr leaf(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!leaf || X509_cmp(leaf.get(), SSL_CTX_get0_certificate(ctx)) != 0) {
    return 0;  // not the certificate on the context: its chain is not ours to add
  }
  int added = 0;
  for (X509Ptr next(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)); next;
       next.reset(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr))) {
    if (SSL_CTX_add0_chain_cert(ctx, next.get()) != 1) {
      return -1;
    }
    (void)next.release();  // the context owns it now
    ++added;
  }
  ERR_clear_error();  // the end of the text reads as "no start line"
  return added;
}

}  // namespace

// Called under ssl_mutex, which the store's load dispatcher holds.
void attach_stored_chain(int index, SSL_CTX* ctx, const char* name) {
  if (SSL_CTX_get0_certificate(ctx) == nullptr || g_ssl_ctxt[index].psk_identify_key != nullptr) {
    return;  // a PSK table, or nothing installed
  }
  (void)SSL_CTX_clear_chain_certs(ctx);  // a chain left from an earlier certificate
  char path[512];
  SecureBytes file;
  if (SSL_cert_get_abs_path(name, KORA_NET_SSL_CERTIFICATE_E, path, sizeof path, false) != 0 ||
      fileExists(path) <= 0) {
    return;  // a certificate the application installed itself, with a name for its sessions
  }
  if (read_stored_file(path, &file) != 0) {
    UTIL_LOG_ERROR("SSL_set_cert_info: certificate file of %s not readable, no chain sent\n", name);
    return;
  }
  // Classified as the loader classifies it, from the low 16 bits of the size.
  if (openssl_IsDerFormat(file.data(), static_cast<uint16_t>(file.size())) != 0) {
    return;  // DER: a single certificate
  }
  const int added = add_intermediates(ctx, file);
  if (added < 0) {
    UTIL_LOG_ERROR("SSL_set_cert_info: chain of %s could not be added\n", name);
    log_ssl_internal_error_impl(__func__, __LINE__);
    (void)SSL_CTX_clear_chain_certs(ctx);
  } else if (added > 0) {
    UTIL_LOG_HIGH("SSL_set_cert_info: %d chain certificates sent with %s\n", added, name);
  }
}

}  // namespace kora::util
