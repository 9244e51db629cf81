// Decoding of certificate and private-key buffers read from the store. The two decoders
// differ on purpose: the certificate decoder says which encoding it took and reports a
// decoding failure, the key decoder stays silent; a DER certificate is decoded from the
// buffer itself, a DER key from the memory BIO.
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "ossl_ptr.h"
#include "ssl_store.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

X509* x509_from_buffer(uint8_t* buffer, size_t buf_size, bool is_der) {
  BioPtr in(BIO_new(BIO_s_mem()));
  if (!in) {
    STORE_LOG_ERROR("Unable to create new BIO file\n");
    return nullptr;
  }
  // Filled for both encodings, although the DER path below reads the buffer directly.
  (void)BIO_write(in.get(), buffer, static_cast<int>(buf_size));

  X509* cert = nullptr;
  if (is_der) {
    STORE_LOG_HIGH("Current certificate is in DER format\n");
    const unsigned char* p = buffer;
    cert = d2i_X509(nullptr, &p, static_cast<long>(buf_size));
  } else {
    STORE_LOG_HIGH("Current certificate is in PEM format \n");
    cert = PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr);
  }
  if (cert == nullptr) {
    log_ssl_internal_error_impl("utility_get_X509_from_buffer", __LINE__);
  }
  return cert;
}

EVP_PKEY* pkey_from_buffer(uint8_t* buffer, size_t buf_size, bool is_der) {
  BioPtr in(BIO_new(BIO_s_mem()));
  if (!in) {
    STORE_LOG_ERROR("Unable to create new BIO file\n");
    return nullptr;
  }
  (void)BIO_write(in.get(), buffer, static_cast<int>(buf_size));
  // No pass phrase and no password callback: stored keys are unencrypted. A decoding
  // failure is not reported here; the caller sees the null key.
  if (is_der) {
    return d2i_PrivateKey_bio(in.get(), nullptr);
  }
  return PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr);
}

}  // namespace
}  // namespace kora::store

extern "C" X509* utility_get_X509_from_buffer(uint8_t* buffer, size_t buf_size, bool isCertDerFormat) {
  return kora::store::x509_from_buffer(buffer, buf_size, isCertDerFormat);
}

extern "C" EVP_PKEY* utility_get_EVP_KEY_from_buffer(uint8_t* buffer, size_t buf_size, bool isCertDerFormat) {
  return kora::store::pkey_from_buffer(buffer, buf_size, isCertDerFormat);
}
