// init's part of the key service, through its tool-facing calls (kora_host_km.h).
#include "cli_km.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli_keys.h"
#include "cli_report.h"
#include "commands.h"
#include "kora_host_km.h"
#include "ssl_KM_crypto_services.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

// Random bytes sealed and opened again to prove the key material works.
constexpr size_t kProbeBytes = 32;

std::string key_service_error() {
  const std::string why = kora_km_last_error();
  return why.empty() ? std::string() : ": " + why;
}

}  // namespace

int prepare_root_key(bool force_new, bool* had_key_blob) {
  std::printf("key service: %s backend, root key %s\n", kora_km_backend(), kora_km_root_key());
  const int state = kora_km_root_key_state();
  if (state < 0 && !force_new) {
    return fail("the key service's root key cannot be used" + key_service_error());
  }
  if (force_new) {
    for (const char* file : {kKeyBlobFile, g_ssl_ta_keyblob_nonce_file_name}) {
      if (::unlink(file) != 0 && errno != ENOENT) {
        return fail(std::string("cannot remove ") + file + ": " + std::strerror(errno));
      }
    }
    *had_key_blob = false;
    if (kora_km_make_root_key(state != 0 ? 1 : 0) != 0) {
      return fail("making a new root key failed" + key_service_error());
    }
    std::printf("new root key made; credentials sealed under the old key material can no longer be opened\n");
    return kExitOk;
  }
  if (state == 0 && *had_key_blob) {
    return fail(std::string("the root key ") + kora_km_root_key() +
                " is missing while the store has a key blob (" + kKeyBlobFile +
                "): a new root key would orphan every stored credential; 'init --force-new-key' starts over");
  }
  if (state == 0) {
    if (kora_km_make_root_key(0) != 0) {
      return fail("making the root key failed" + key_service_error());
    }
    std::printf("root key made\n");
  }
  return kExitOk;
}

int probe_key_material() {
  uint8_t probe[kProbeBytes];
  (void)RAND_bytes(probe, sizeof probe);
  void* sealed = nullptr;
  void* opened = nullptr;
  size_t sealed_len = 0;
  size_t opened_len = 0;
  const uint8_t* keyblob = nullptr;
  const uint8_t* nonce = nullptr;
  size_t keyblob_len = 0;
  const bool ok =
      ssl_store_key_material(&keyblob, &keyblob_len, &nonce) &&
      ssl_KM_TA_crypto_services_encrypt_decrypt_data(keyblob, keyblob_len, nonce, probe, sizeof probe,
                                                     &sealed, &sealed_len, SSL_KM_DIRECTION_SEAL) == 0 &&
      ssl_KM_TA_crypto_services_encrypt_decrypt_data(keyblob, keyblob_len, nonce, sealed, sealed_len, &opened,
                                                     &opened_len, SSL_KM_DIRECTION_UNSEAL) == 0 &&
      opened_len == sizeof probe && CRYPTO_memcmp(opened, probe, sizeof probe) == 0;
  std::free(sealed);
  OPENSSL_clear_free(opened, opened_len);
  if (!ok) {
    return fail("the key material does not work: a probe could not be sealed and opened again" +
                key_service_error());
  }
  std::printf("key material works: a probe was sealed and opened again\n");
  return kExitOk;
}

}  // namespace kora::cli
