// Sealed credential files: every stored credential is the key service's sealed buffer, byte
// for byte, with nothing added by the store.
#include <cstdio>
#include <cstdlib>

#include "ssl_KM_crypto_services.h"
#include "ssl_store.h"
#include "ssl_store_internal.h"
#include "ssl_store_log.h"

namespace kora::store {

int seal_to_file(const char* name, const void* plain_data_buf_ptr, size_t plain_data_buf_size) {
  void* sealed_buf_ptr = nullptr;
  size_t sealed_buf_size = 0;
  if (name == nullptr || plain_data_buf_ptr == nullptr || plain_data_buf_size == 0) {
    // One text for both directions, "decryption" included; nothing fills its "%s".
    STORE_LOG_ERROR("SSL_cert_store: %s Certificate decryption buffer is empty !\n", "");
    return KORA_ERROR;
  }
  if (!key_material_available()) {
    STORE_LOG_ERROR("SSL_cert_store: Key blob is not available !\n");
    return KORA_ERROR;
  }
  int status = KORA_ERROR;
  if (ssl_KM_TA_crypto_services_encrypt_decrypt_data(gp_tz_keyblob, g_keyblob_len, gp_ta_nonceBuf,
                                                     plain_data_buf_ptr, plain_data_buf_size, &sealed_buf_ptr,
                                                     &sealed_buf_size, SSL_KM_DIRECTION_SEAL) != 0) {
    // Standard output, not the diagnostic service, as this path has always printed it.
    std::printf("ssl_store_cert_write_encrypt_to_file: Certificate encrypt error \n");
  } else if (sealed_buf_ptr == nullptr || sealed_buf_size == 0) {
    // These words although the key blob was there; standard output as well.
    std::printf("SSL_cert_store: Key blob is not available !\n");
  } else if (ssl_store_write_to_file(name, sealed_buf_ptr, sealed_buf_size) != 0) {
    STORE_LOG_ERROR("SSL_cert_store: storing Encrypted certificate in EFS failed!\n");
  } else {
    status = KORA_OK;
  }
  if (sealed_buf_ptr != nullptr) {
    std::free(sealed_buf_ptr);
  }
  return status;
}

int unseal_from_file(const char* name, void** buffer_ptr, size_t* buffer_size) {
  void* sealed_buf_ptr = nullptr;
  size_t sealed_buf_size = 0;
  if (name == nullptr || buffer_ptr == nullptr || buffer_size == nullptr) {
    STORE_LOG_ERROR("Invalid parameters\n");
    return KORA_ERROR;
  }
  if (!key_material_available()) {
    STORE_LOG_ERROR("SSL_cert_store: Key blob is not available !");
    return KORA_ERROR;
  }
  if (ssl_store_read_from_file(name, &sealed_buf_ptr, &sealed_buf_size) != 0) {
    STORE_LOG_ERROR("ssl_store_cert_read_decrypt_from_file: Reading from EFS failed failed! \n");
  } else if (sealed_buf_ptr == nullptr || sealed_buf_size == 0) {
    STORE_LOG_ERROR("ssl_store_cert_read_decrypt_from_file: Reading from EFS failed failed! \n");
  } else if (ssl_KM_TA_crypto_services_encrypt_decrypt_data(gp_tz_keyblob, g_keyblob_len, gp_ta_nonceBuf,
                                                            sealed_buf_ptr, sealed_buf_size, buffer_ptr,
                                                            buffer_size, SSL_KM_DIRECTION_UNSEAL) != 0) {
    STORE_LOG_ERROR("ssl_store_cert_read_decrypt_from_file: Certificate decryption error \n");
  } else if (*buffer_ptr == nullptr || *buffer_size == 0) {
    STORE_LOG_ERROR("SSL_cert_store: %s Certificate decryption buffer is empty !\n", "");
  } else {
    std::free(sealed_buf_ptr);
    return KORA_OK;
  }
  // Failure clean-up: the caller's buffer is released even when the failure came before
  // any decryption, so callers must hand in null or a buffer that may be freed.
  if (sealed_buf_ptr != nullptr) {
    std::free(sealed_buf_ptr);
  }
  if (*buffer_ptr != nullptr) {
    std::free(*buffer_ptr);
    *buffer_ptr = nullptr;
  }
  *buffer_size = 0;
  return KORA_ERROR;
}

}  // namespace kora::store

extern "C" {

int ssl_store_cert_write_encrypt_to_file(const char* name, const void* plain_data_buf_ptr,
                                         size_t plain_data_buf_size) {
  return kora::store::seal_to_file(name, plain_data_buf_ptr, plain_data_buf_size);
}

int ssl_store_cert_read_decrypt_from_file(const char* name, void** buffer_ptr, size_t* buffer_size) {
  return kora::store::unseal_from_file(name, buffer_ptr, buffer_size);
}

}  // extern "C"
