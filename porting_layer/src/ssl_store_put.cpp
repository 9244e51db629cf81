// Storing a named credential, or removing it together with its private key and the session
// files bound to it.
#include <cstring>

#include "ivra_mutex.h"
#include "kora_net_ssl.h"
#include "ssl_store.h"
#include "ssl_store_log.h"
#include "ssl_util.h"

namespace kora::store {
namespace {

constexpr int kPathBufferSize = 512;

// Stores `cert` under `name`: one sealed file that replaces any earlier one whole; session
// files bound to the name are left alone.
int put_credential(const char* name, kora_Net_SSL_Cert_Type_t type, const void* cert, int size,
                   bool priv_key) {
  char temp_file_path[kPathBufferSize];
  char priv_temp_file_path[kPathBufferSize];
  std::memset(temp_file_path, 0, sizeof temp_file_path);
  std::memset(priv_temp_file_path, 0, sizeof priv_temp_file_path);

  if (name == nullptr) {
    STORE_LOG_ERROR("SSL_cert_store: Invalid EFS file name \n");
    return KORA_ERR_INVALID_PARAM;
  }
  if (SSL_cert_get_abs_path(name, type, temp_file_path, kPathBufferSize, priv_key) != KORA_OK) {
    STORE_LOG_ERROR("SSL_cert_store: Invalid abs path for the file name:%s type:%d", name,
                    static_cast<int>(type));
    return KORA_ERROR;
  }

  // No guard: two failure paths below keep ssl_mutex held on purpose.
  ivra_mutex_lock(&ssl_mutex);

  if (cert != nullptr && size != 0) {
    // A negative size also selects storing and reaches the sealing call converted to an
    // unsigned length, as legacy callers have always had it.
    int status = ssl_store_cert_write_encrypt_to_file(temp_file_path, cert, static_cast<size_t>(size));
    if (status == KORA_ERROR) {
      STORE_LOG_ERROR("Failed to write cert file to file location\n");
      // the lock stays held on this path: every failed write leaves ssl_mutex locked, so the
      // next caller that takes it waits (legacy behaviour, kept as it is).
      return KORA_ERROR;
    }
    ivra_mutex_unlock(&ssl_mutex);
    return status;
  }

  // No bytes: remove the credential.
  int status = ssl_store_delete_file(temp_file_path);
  if (type == KORA_NET_SSL_CERTIFICATE_E) {
    if (SSL_cert_get_abs_path(name, type, priv_temp_file_path, kPathBufferSize, true) != KORA_OK) {
      STORE_LOG_ERROR("SSL_cert_store: Invalid abs path for the file name:%s type:%d", name,
                      static_cast<int>(type));
      // the lock stays held on this path: the early return keeps ssl_mutex locked and skips
      // the session files; it reports the certificate file's removal result.
      return status;
    }
    // The certificate file's own result is dropped: the key file's removal decides.
    status = ssl_store_delete_file(priv_temp_file_path);
  }
  ssl_store_delete_binded_session_files(name, type);
  ivra_mutex_unlock(&ssl_mutex);
  return status;
}

}  // namespace
}  // namespace kora::store

extern "C" int SSL_cert_store(const char* name, const kora_Net_SSL_Cert_Type_t type, const void* cert,
                              int size, bool priv_key) {
  return kora::store::put_credential(name, type, cert, size, priv_key);
}
