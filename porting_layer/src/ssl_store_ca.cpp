// Loading a stored CA list as the verify locations of an SSL object's context. OpenSSL takes
// the list from a file, so the decrypted list is written in plain form to one fixed
// temporary file that lives only for the span of the call (the dispatcher's hold of
// ssl_mutex keeps two loads from sharing it).
#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <cstdlib>

#include "ssl_store.h"
#include "ssl_store_internal.h"
#include "ssl_store_layout.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

// The decrypted list reaches OpenSSL through the temporary file; returns the load result.
int install_from_temp_file(SSL_CTX* ssl, void* buffer, size_t buf_size) {
  if (ssl_store_write_to_file(KORA_STORE_CA_LIST_TEMP_FILE, buffer, buf_size) != 0) {
    // The text speaks of an encrypted certificate although the file is plain; kept as is.
    STORE_LOG_ERROR("SSL_ca_list_load: storing Encrypted certificate in EFS failed!\n");
    return KORA_ERROR;
  }
  if (SSL_CTX_load_verify_locations(ssl, KORA_STORE_CA_LIST_TEMP_FILE, nullptr) != 1) {
    // High level, not error, as the device has always reported a refused list.
    STORE_LOG_HIGH("CAList: Unable to retrieve the CAList\n");
    log_ssl_internal_error_impl("SSL_ca_list_load", __LINE__);
    return KORA_ERROR;
  }
  return KORA_OK;
}

int ca_list_load(ssl_obj_hdl_t hdl, const char* file_path) {
  void* buffer = nullptr;
  size_t buf_size = 0;
  int index = -1;

  if (file_path == nullptr) {
    STORE_LOG_ERROR("ca_list file path set is NULL\n");
    return KORA_ERR_INVALID_PARAM;
  }
  SSL_CTX* ssl = ssl_get_obj_context(hdl);
  if (ssl == nullptr) {
    STORE_LOG_ERROR("Object context is NULL\n");
    return KORA_ERR_INVALID_PARAM;
  }
  (void)utility_get_ssl_ctxt(ssl, &index);
  if (index == -1) {
    STORE_LOG_ERROR("Unable to get the correct global index\n");
    return KORA_ERROR;
  }
  if (g_ssl_ctxt[index].psk_identify_key != nullptr) {
    STORE_LOG_HIGH("PSK key is not NULL. Don't support setting both certificate and PSK in SSL object\n");
    return KORA_ERR_NOT_SUPPORTED;
  }

  int result = KORA_ERROR;
  if (ssl_store_cert_read_decrypt_from_file(file_path, &buffer, &buf_size) != 0) {
    STORE_LOG_ERROR("ERROR: Reading ca_list info from cert loc failed!! \r\n");
  } else {
    result = install_from_temp_file(ssl, buffer, buf_size);
  }

  // Attempted on every path from here, also after a failed read when this call wrote no
  // file: the failed removal is then logged. Its outcome never changes the result.
  if (std::remove(KORA_STORE_CA_LIST_TEMP_FILE) == 0) {
    STORE_LOG_HIGH("Temp file removed successfully\n");
  } else {
    STORE_LOG_ERROR("Unable to delete the temp file\n");
  }
  if (buffer != nullptr) {
    OPENSSL_cleanse(buffer, buf_size);
    free(buffer);
  }
  return result;
}

}  // namespace
}  // namespace kora::store

extern "C" int SSL_ca_list_load(ssl_obj_hdl_t hdl, const char* file_path) {
  return kora::store::ca_list_load(hdl, file_path);
}
