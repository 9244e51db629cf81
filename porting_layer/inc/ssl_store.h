/* Credential store: start-up, file-level calls for the SSL object layer, and the calls the
 * loaders are built from. */
#ifndef SSL_STORE_H
#define SSL_STORE_H

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "kora_net_ssl.h"
#include "ssl_util.h"

#ifdef __cplusplus
extern "C" {
#endif

int ssl_store_init(void);
int ssl_store_generate_keyblob_store_in_securefs_file(void);
/* The key blob and nonce loaded by start-up, for checks of the key service by tools: true with
 * the three outputs set when key material is there, false (outputs untouched) otherwise. */
bool ssl_store_key_material(const uint8_t** keyblob, size_t* keyblob_len, const uint8_t** nonce);
extern const char* g_ssl_ta_keyblob_nonce_file_name;

int fileExists(const char* fname);
int SSL_cert_get_abs_path(const char* file_name, const kora_Net_SSL_Cert_Type_t type, char* file_path,
                          int max_len, bool key);
int Is_SSL_cert_file_exist(const char* file_name, const kora_Net_SSL_Cert_Type_t type);
int SSL_session_get_abs_path(const char* file_name, char* file_path, int max_len);

int ssl_store_read_from_file(const char* name, void** buffer_ptr, size_t* buffer_size);
int ssl_store_write_to_file(const char* name, void* buffer_ptr, size_t buffer_size);
int ssl_store_delete_file(const char* name);
void ssl_store_delete_binded_session_files(const char* cert_name, kora_Net_SSL_Cert_Type_t type);

int ssl_store_cert_write_encrypt_to_file(const char* name, const void* plain_data_buf_ptr,
                                         size_t plain_data_buf_size);
int ssl_store_cert_read_decrypt_from_file(const char* name, void** buffer_ptr, size_t* buffer_size);

int32_t ssl_parse_and_store_psktable(kora_Net_SSL_PSK_Table_t* psktbl, const uint8_t* out_file);

int SSL_ca_list_load(ssl_obj_hdl_t hdl, const char* file_path);
int SSL_psk_table_load(ssl_obj_hdl_t hdl, const char* file_path, int max_psk_len);
unsigned int psk_client_cb(SSL* ssl, const char* hint, char* identity, unsigned int max_identity_len,
                           unsigned char* psk, unsigned int max_psk_len);
/* Calls fn with each identity of the stored PSK table `name`, in table order, never with a
 * key. Returns the number of entries, KORA_ERROR when the table cannot be unsealed or is
 * malformed, KORA_ERR_INVALID_PARAM for a null argument or a name the store refuses. */
typedef void (*ssl_psk_identity_fn)(const uint8_t* identity, size_t len, void* user);
int SSL_psk_table_identities(const char* name, ssl_psk_identity_fn fn, void* user);
int SSL_certificate_load(ssl_obj_hdl_t hdl, const char* file_path, const char* priv_key_file_path);
X509* utility_get_X509_from_buffer(uint8_t* buffer, size_t buf_size, bool isCertDerFormat);
EVP_PKEY* utility_get_EVP_KEY_from_buffer(uint8_t* buffer, size_t buf_size, bool isCertDerFormat);

#ifdef __cplusplus
}
#endif

#endif /* SSL_STORE_H */
