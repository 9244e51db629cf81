// Fuzz target for the DER/PEM classifier and the certificate and key decoders, as a load of a
// stored certificate runs them: the classifier picks the encoding from the bytes, and both
// decoders take the bytes with that encoding.
//
// Invariants:
// - the classifier agrees with a model written here on OpenSSL's own ASN.1 header parser:
//   DER when the bytes (not opening with "-----BEGIN" after white space) open with a
//   SEQUENCE of definite, minimally encoded length that fits in them;
// - whatever a decoder accepts survives a round trip: re-encoded as DER it is classified DER
//   and decodes to the same certificate or key, and re-encoded as PEM it is classified PEM
//   and decodes to the same again.
// ASan and UBSan catch reads beyond the bytes, which are copied to an exact-size buffer.
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "msg_diag.h"
#include "ossl_ptr.h"
#include "ssl_store.h"
#include "ssl_util.h"

namespace {

using kora::BioPtr;
using kora::EvpPkeyPtr;
using kora::X509Ptr;

void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "DER/PEM classification or decoding broke an invariant: %s\n", what);
    std::abort();
  }
}

void silent_sink(const msg_const_type*, const char*, void*) {}

bool model_is_der(const uint8_t* data, size_t size) {
  size_t i = 0;
  while (i < size && std::strchr(" \t\n\v\f\r", data[i]) != nullptr && data[i] != '\0') {
    ++i;
  }
  static const char kBegin[] = "-----BEGIN";
  if (size - i >= sizeof kBegin - 1 && std::memcmp(data + i, kBegin, sizeof kBegin - 1) == 0) {
    return false;
  }
  if (size == 0 || data[0] != 0x30) {
    return false;
  }
  const unsigned char* p = data;
  long length = 0;
  int tag = 0;
  int xclass = 0;
  const int flags = ASN1_get_object(&p, &length, &tag, &xclass, static_cast<long>(size));
  // 0x80: an error (a length beyond the bytes among them); bit 0: the indefinite form.
  if ((flags & 0x80) != 0 || (flags & 0x01) != 0) {
    return false;
  }
  // Minimal: the header is exactly as long as DER writes it for this length.
  const int der_size = ASN1_object_size(1, length, V_ASN1_SEQUENCE);
  return der_size >= 0 && static_cast<long>(p - data) == der_size - length;
}

std::vector<uint8_t> pem_of(int (*write)(BIO*, void*), void* object) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  check(bio && write(bio.get(), object) == 1, "PEM writing");
  char* text = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &text);
  return {text, text + n};
}

int write_cert(BIO* bio, void* cert) { return PEM_write_bio_X509(bio, static_cast<X509*>(cert)); }
int write_key(BIO* bio, void* key) {
  return PEM_write_bio_PrivateKey(bio, static_cast<EVP_PKEY*>(key), nullptr, nullptr, 0, nullptr, nullptr);
}

bool classified_der(std::vector<uint8_t>& bytes) {
  return openssl_IsDerFormat(bytes.data(), static_cast<uint16_t>(bytes.size())) != 0;
}

void round_trip_certificate(X509* cert) {
  unsigned char* der_out = nullptr;
  const int n = i2d_X509(cert, &der_out);
  check(n > 0, "DER writing of a decoded certificate");
  std::vector<uint8_t> der(der_out, der_out + n);
  OPENSSL_free(der_out);
  std::vector<uint8_t> pem = pem_of(&write_cert, cert);
  for (auto* bytes : {&der, &pem}) {
    const bool is_der = bytes == &der;
    if (bytes->size() <= UINT16_MAX) {
      check(classified_der(*bytes) == is_der,
            is_der ? "DER certificate not classified DER" : "PEM classified DER");
    }
    X509Ptr again(utility_get_X509_from_buffer(bytes->data(), bytes->size(), is_der));
    check(again && X509_cmp(again.get(), cert) == 0, "certificate round trip");
  }
}

void round_trip_key(EVP_PKEY* key) {
  unsigned char* der_out = nullptr;
  const int n = i2d_PrivateKey(key, &der_out);
  if (n <= 0) {
    return;  // a key OpenSSL can read but not write in DER is not ours to judge
  }
  std::vector<uint8_t> der(der_out, der_out + n);
  OPENSSL_clear_free(der_out, static_cast<size_t>(n));
  std::vector<uint8_t> pem = pem_of(&write_key, key);
  for (auto* bytes : {&der, &pem}) {
    EvpPkeyPtr again(utility_get_EVP_KEY_from_buffer(bytes->data(), bytes->size(), bytes == &der));
    check(again && EVP_PKEY_eq(again.get(), key) == 1, "key round trip");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  msg_set_sink(&silent_sink, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > UINT16_MAX) {
    return 0;  // the classifier takes a 16-bit length
  }
  std::vector<uint8_t> bytes(data, data + size);
  const bool is_der = openssl_IsDerFormat(bytes.data(), static_cast<uint16_t>(size)) != 0;
  check(is_der == model_is_der(data, size), "classifier disagrees with the model");

  X509Ptr cert(utility_get_X509_from_buffer(bytes.data(), size, is_der));
  if (cert) {
    round_trip_certificate(cert.get());
  }
  // The load path decodes the key with the certificate's encoding.
  EvpPkeyPtr key(utility_get_EVP_KEY_from_buffer(bytes.data(), size, is_der));
  if (key) {
    round_trip_key(key.get());
  }
  check(size == 0 || std::memcmp(bytes.data(), data, size) == 0, "input left unchanged");
  ERR_clear_error();  // the decoders leave their complaints on the thread's queue
  return 0;
}
