// Key material of encryption at rest: the key blob handed out by the key service and the
// 12-byte nonce, generated on a device's first start and loaded from the store afterwards.
#include <fcntl.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>

#include "fs_public.h"
#include "ssl_KM_crypto_services.h"
#include "ssl_store.h"
#include "ssl_store_internal.h"
#include "ssl_store_layout.h"
#include "ssl_store_log.h"
#include "ssl_util.h"

extern "C" {

// Filled once at start-up and never changed afterwards; read without a lock.
uint8_t* gp_tz_keyblob = nullptr;
size_t g_keyblob_len = 0;
uint8_t* gp_ta_nonceBuf = nullptr;

// Modifiable so that another module can move the nonce file before start-up.
const char* g_ssl_ta_keyblob_nonce_file_name = KORA_STORE_NONCE_FILE;

}  // extern "C"

namespace kora::store {
namespace {

constexpr uint16_t kNonceLength = 12;
// Write-only and create, no truncation: an older, longer file keeps its tail.
constexpr int kPutFlags = O_WRONLY | O_CREAT;
constexpr int kPutMode = 0777;
static_assert(kPutFlags == 0x41 && kPutMode == 0x1ff);

// Clean-up of every failure after the key blob was generated or while loading. The length
// is reset only together with a non-null blob; a null blob leaves it as it was.
int key_err(int status) {
  if (gp_ta_nonceBuf != nullptr) {
    std::free(gp_ta_nonceBuf);
    gp_ta_nonceBuf = nullptr;
  }
  if (gp_tz_keyblob != nullptr) {
    OPENSSL_cleanse(gp_tz_keyblob, g_keyblob_len);
    std::free(gp_tz_keyblob);
    gp_tz_keyblob = nullptr;
    g_keyblob_len = 0;
  }
  return status;
}

int provisioned() {
  // The same words after a load and when the material was already there.
  STORE_LOG_HIGH("SSL_cert_store: Successfully genereated Keyblob");
  return KORA_OK;
}

int generate() {
  if (ssl_KM_TA_crypto_services_generate_keyblob(&gp_tz_keyblob, &g_keyblob_len) != 0) {
    STORE_LOG_ERROR("SSL_cert_store: Error in Generating new Key blob");
    // Not through key_err: whatever the service left in the two variables stays there.
    return KORA_ERROR;
  }
  if (!key_material_available()) {
    // A service that succeeds without a blob counts as success: no nonce, no files.
    return provisioned();
  }
  STORE_LOG_HIGH("Keyblob is generated");
  gp_ta_nonceBuf = static_cast<uint8_t*>(std::calloc(kNonceLength, 1));
  if (gp_ta_nonceBuf == nullptr) {
    STORE_LOG_ERROR("Allocating memory for nonce buffer failed!");
    return key_err(KORA_ERR_NO_MEMORY);
  }
  if (ssl_get_random_number(kNonceLength, gp_ta_nonceBuf) != 0) {
    STORE_LOG_ERROR("SSL_cert_store: Unable to generate TA nonce ");
    return key_err(KORA_ERROR);
  }
  if (efs_put(g_ssl_ta_keyblob_file_name, gp_tz_keyblob, g_keyblob_len, kPutFlags, kPutMode) < 0) {
    STORE_LOG_ERROR("SSL_cert_store: Unable to store Key blob into EFS");
    return key_err(KORA_ERROR);
  }
  if (efs_put(g_ssl_ta_keyblob_nonce_file_name, gp_ta_nonceBuf, kNonceLength, kPutFlags, kPutMode) < 0) {
    STORE_LOG_ERROR("SSL_cert_store: Unable to store nonce into EFS");
    // The key blob file written a moment ago stays on disk.
    return key_err(KORA_ERROR);
  }
  return provisioned();
}

int load() {
  void* keyblob = nullptr;
  size_t keyblob_len = 0;
  if (ssl_store_read_from_file(g_ssl_ta_keyblob_file_name, &keyblob, &keyblob_len) != 0) {
    STORE_LOG_ERROR("SSL_cert_store: Reading keyblob from EFS failed failed!");
    return key_err(KORA_ERROR);
  }
  gp_tz_keyblob = static_cast<uint8_t*>(keyblob);
  g_keyblob_len = keyblob_len;

  void* nonce = nullptr;
  // A nonce file of any length is accepted; its length serves only the padding below.
  size_t nonce_len = kNonceLength;
  if (ssl_store_read_from_file(g_ssl_ta_keyblob_nonce_file_name, &nonce, &nonce_len) != 0) {
    STORE_LOG_ERROR("SSL_cert_store: Reading nonce from EFS failed failed!");
    return key_err(KORA_ERROR);
  }
  // The key service always reads 12 bytes of nonce: a shorter file is zero-padded in memory
  // so that it never reads past this buffer. The file itself is taken as it stands.
  if (nonce_len < kNonceLength) {
    if (void* padded = std::realloc(nonce, kNonceLength)) {
      std::memset(static_cast<uint8_t*>(padded) + nonce_len, 0, kNonceLength - nonce_len);
      nonce = padded;
    }
  }
  gp_ta_nonceBuf = static_cast<uint8_t*>(nonce);
  return provisioned();
}

}  // namespace

int provision_key_material() {
  if (key_material_available()) {
    return provisioned();
  }
  // Only the key blob file decides; the nonce file is never tested for.
  fs_stat stat_buf;
  if (efs_stat(g_ssl_ta_keyblob_file_name, &stat_buf) < 0) {
    return generate();
  }
  return load();
}

}  // namespace kora::store

extern "C" int ssl_store_generate_keyblob_store_in_securefs_file(void) {
  return kora::store::provision_key_material();
}

extern "C" bool ssl_store_key_material(const uint8_t** keyblob, size_t* keyblob_len, const uint8_t** nonce) {
  if (!kora::store::key_material_available()) {
    return false;
  }
  *keyblob = gp_tz_keyblob;
  *keyblob_len = g_keyblob_len;
  *nonce = gp_ta_nonceBuf;
  return true;
}
