// Host key-management service. A 256-bit data key is handed out wrapped (RFC 5649) under a
// root key; sealing is AES-256-GCM under the data key with a fresh IV per call and the
// caller's nonce bound as associated data. The root key lives in a file (the default) or in
// a PKCS#11 token named by KORA_KM_PKCS11_URI; this file picks the backend per call.
#include <glib.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_km.h"
#include "kora_host_km.h"
#include "ssl_KM_crypto_services.h"

#ifndef KORA_KM_ROOT_KEY_DEFAULT
#define KORA_KM_ROOT_KEY_DEFAULT "/var/lib/kora-km/root.key"
#endif

namespace kora::km {
namespace {

thread_local char t_error[512];

bool crypt_args_ok(const uint8_t* keyblob, const uint8_t* nonce, const void* in, size_t in_len, void** out,
                   size_t* out_len, int direction) {
  return keyblob != nullptr && nonce != nullptr && out != nullptr && out_len != nullptr &&
         (in != nullptr || in_len == 0) &&
         (direction == SSL_KM_DIRECTION_SEAL || direction == SSL_KM_DIRECTION_UNSEAL) &&
         in_len <= static_cast<size_t>(INT_MAX) - kSealOverhead;
}

}  // namespace

const char* root_key_path() {
  const char* env = std::getenv("KORA_KM_ROOT_KEY");
  return env != nullptr && env[0] != '\0' ? env : KORA_KM_ROOT_KEY_DEFAULT;
}

const char* pkcs11_uri() {
  const char* env = std::getenv("KORA_KM_PKCS11_URI");
  return env != nullptr && env[0] != '\0' ? env : nullptr;
}

Result fail(Result r, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  (void)std::vsnprintf(t_error, sizeof t_error, fmt, ap);
  va_end(ap);
  return r;
}

void clear_error() { t_error[0] = '\0'; }

void seal_aad(uint8_t version, const uint8_t* nonce, uint8_t aad[kAadLen]) {
  aad[0] = version;
  std::memcpy(aad + 1, nonce, kNonceLen);
}

void forget_keys() {
  file::forget();
  token::forget();
}

}  // namespace kora::km

using namespace kora::km;

extern "C" int ssl_KM_TA_crypto_services_generate_keyblob(uint8_t** keyblob, size_t* keyblob_len) {
  clear_error();
  if (keyblob == nullptr || keyblob_len == nullptr) {
    return fail(kErrArgs, "null key blob pointer");
  }
  return pkcs11_uri() != nullptr ? token::generate_keyblob(keyblob, keyblob_len)
                                 : file::generate_keyblob(keyblob, keyblob_len);
}

extern "C" int ssl_KM_TA_crypto_services_encrypt_decrypt_data(const uint8_t* keyblob, size_t keyblob_len,
                                                              const uint8_t* nonce, const void* in,
                                                              size_t in_len, void** out, size_t* out_len,
                                                              int direction) {
  clear_error();
  if (!crypt_args_ok(keyblob, nonce, in, in_len, out, out_len, direction)) {
    return fail(kErrArgs, "bad arguments to the key service");
  }
  if (keyblob_len != kKeyBlobLen) {
    return fail(kErrKeyBlob, "the key blob is %zu bytes, not %zu", keyblob_len, kKeyBlobLen);
  }
  const auto* bytes = static_cast<const uint8_t*>(in);
  const bool seal = direction == SSL_KM_DIRECTION_SEAL;
  return pkcs11_uri() != nullptr ? token::crypt(keyblob, nonce, bytes, in_len, out, out_len, seal)
                                 : file::crypt(keyblob, nonce, bytes, in_len, out, out_len, seal);
}

extern "C" const char* kora_km_backend(void) { return pkcs11_uri() != nullptr ? "pkcs11" : "file"; }

extern "C" const char* kora_km_root_key(void) {
  const char* uri = pkcs11_uri();
  if (uri == nullptr) {
    return root_key_path();
  }
  thread_local char shown[1024];
  (void)g_strlcpy(shown, token::describe(uri).c_str(), sizeof shown);
  return shown;
}

extern "C" int kora_km_root_key_state(void) {
  clear_error();
  return pkcs11_uri() != nullptr ? token::root_key_state() : file::root_key_state();
}

extern "C" int kora_km_make_root_key(int replace) {
  clear_error();
  forget_keys();
  return pkcs11_uri() != nullptr ? token::make_root_key(replace != 0) : file::make_root_key(replace != 0);
}

extern "C" const char* kora_km_last_error(void) { return t_error; }
