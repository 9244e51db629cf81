// Loading a stored certificate with its private key onto an SSL object's context, and the
// load entry that dispatches a named credential by kind.
#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cstdlib>

#include "ivra_lock.h"
#include "ossl_ptr.h"
#include "secure_bytes.h"
#include "ssl_store.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

// Reads and unseals a credential file into *plain, which this module owns until the load
// ends (whatever the read hands out, on failure too).
int read_plain(const char* path, SecureBytes* plain) {
  void* data = nullptr;
  size_t size = 0;
  const int status = ssl_store_cert_read_decrypt_from_file(path, &data, &size);
  *plain = SecureBytes::adopt(data, size);
  return status;
}

// Decrypts both files and installs them; the buffers are released by the caller whatever
// happens. A certificate installed here stays on the context when the key fails after it.
int install_certificate_and_key(SSL_CTX* ssl, const char* file_path, const char* priv_key_file_path,
                                SecureBytes* cert_plain, SecureBytes* key_plain) {
  if (read_plain(file_path, cert_plain) != 0) {
    STORE_LOG_ERROR("ERROR: Reading certificate info from cert loc failed!! \r\n");
    return KORA_ERROR;
  }
  uint8_t* cert_bytes = cert_plain->data();
  // The DER test takes a 16-bit length: a larger file is classified from the low 16 bits of
  // its size, and then decoded with its full size.
  const bool is_der = openssl_IsDerFormat(cert_bytes, static_cast<uint16_t>(cert_plain->size())) != 0;

  X509Ptr cert(utility_get_X509_from_buffer(cert_bytes, cert_plain->size(), is_der));
  if (!cert) {
    STORE_LOG_ERROR("Failed to get the X509 object \n");
    return KORA_ERROR;
  }
  const int cert_result = SSL_CTX_use_certificate(ssl, cert.get());
  cert.reset();  // the context holds its own reference
  if (cert_result != 1) {
    STORE_LOG_ERROR("Failed to set the certificate \n");
    log_ssl_internal_error_impl("SSL_certificate_load", __LINE__);
    return KORA_ERROR;
  }

  if (read_plain(priv_key_file_path, key_plain) != 0) {
    STORE_LOG_ERROR("ERROR: Reading private key info from cert loc failed!! \r\n");
    return KORA_ERROR;
  }
  // The key is decoded with the certificate's encoding; its own is never examined. A key
  // that does not decode is handed on as null and refused by OpenSSL.
  EvpPkeyPtr pkey(utility_get_EVP_KEY_from_buffer(key_plain->data(), key_plain->size(), is_der));
  const int key_result = SSL_CTX_use_PrivateKey(ssl, pkey.get());
  pkey.reset();
  if (key_result != 1) {
    STORE_LOG_ERROR("Failed to set the private key \n");
    log_ssl_internal_error_impl("SSL_certificate_load", __LINE__);
    return KORA_ERROR;
  }
  return KORA_OK;
}

int certificate_load(ssl_obj_hdl_t hdl, const char* file_path, const char* priv_key_file_path) {
  int index = -1;
  if (hdl == 0 || file_path == nullptr || priv_key_file_path == nullptr) {
    STORE_LOG_ERROR("File path parameters are invalid or obj handle passed is NULL\n");
    return KORA_ERROR;  // legacy callers rely on -1 here, not -2
  }
  SSL_CTX* ssl = ssl_get_obj_context(hdl);
  if (ssl == nullptr) {
    STORE_LOG_ERROR("SSL object context is NULL\n");
    return KORA_ERR_INVALID_PARAM;
  }
  (void)utility_get_ssl_ctxt(ssl, &index);
  if (index == -1) {
    STORE_LOG_ERROR("Unable to get the correct global index\n");
    return KORA_ERROR;
  }
  if (g_ssl_ctxt[index].psk_identify_key != nullptr) {
    STORE_LOG_HIGH("PSK key is set. Setting both certificate and PSK is not supported\n");
    return KORA_ERR_NOT_SUPPORTED;
  }

  SecureBytes cert_plain;
  SecureBytes key_plain;
  return install_certificate_and_key(ssl, file_path, priv_key_file_path, &cert_plain, &key_plain);
}

int cert_load(kora_Net_SSL_Obj_Hdl_t hdl, kora_Net_SSL_Cert_Type_t type, const char* name) {
  char file_path[512];
  char pri_key_file_path[512];
  int status = KORA_ERROR;

  if (name == nullptr) {
    STORE_LOG_ERROR("Invalid file name \n");
    return KORA_ERR_INVALID_PARAM;
  }
  if (SSL_cert_get_abs_path(name, type, file_path, sizeof file_path, false) != 0) {
    STORE_LOG_ERROR("SSL_cert_load:Invalid abs path for the file name:%s type:%d \n", name,
                    static_cast<int>(type));
    return KORA_ERROR;
  }

  const IvraLock lock(&ssl_mutex);
  // Not checked here: with an unknown handle the loader fails first and the name is never
  // recorded.
  SSL_CTX* obj_ctxt = ssl_get_obj_context(hdl);

  switch (type) {
    case KORA_NET_SSL_CERTIFICATE_E:
      if (SSL_cert_get_abs_path(name, KORA_NET_SSL_CERTIFICATE_E, pri_key_file_path, sizeof pri_key_file_path,
                                true) != 0) {
        STORE_LOG_ERROR("SSL_cert_load:Invalid abs path for the file name:%s type:%d \n", name,
                        static_cast<int>(type));
        return KORA_ERROR;
      }
      status = SSL_certificate_load(hdl, file_path, pri_key_file_path);
      if (status == KORA_OK && SSL_set_cert_info(obj_ctxt, name) != 0) {
        // The certificate is installed by now: the load still succeeds.
        STORE_LOG_ERROR("Unable to set the cert name to the object context \n");
      }
      break;
    case KORA_NET_SSL_CA_LIST_E:
      status = SSL_ca_list_load(hdl, file_path);  // no name is recorded for a CA list
      break;
    case KORA_NET_SSL_PSK_TABLE_E:
      status = SSL_psk_table_load(hdl, file_path, 256);
      if (status == KORA_OK && SSL_set_cert_info(obj_ctxt, name) != 0) {
        STORE_LOG_ERROR("Unable to set the cert name to the object context \n");
      }
      break;
    default:
      // Device-identity certificates have their own entry.
      STORE_LOG_HIGH("Invalid Cert Type: %d", static_cast<int>(type));
      return KORA_ERR_INVALID_PARAM;
  }

  return status;
}

}  // namespace
}  // namespace kora::store

extern "C" int SSL_certificate_load(ssl_obj_hdl_t hdl, const char* file_path,
                                    const char* priv_key_file_path) {
  return kora::store::certificate_load(hdl, file_path, priv_key_file_path);
}

extern "C" int SSL_cert_load(kora_Net_SSL_Obj_Hdl_t hdl, kora_Net_SSL_Cert_Type_t type, const char* name) {
  return kora::store::cert_load(hdl, type, name);
}
