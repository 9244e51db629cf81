/* Key-management service: key blobs and sealing of credential bytes. */
#ifndef SSL_KM_CRYPTO_SERVICES_H
#define SSL_KM_CRYPTO_SERVICES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SSL_KM_DIRECTION_SEAL 0
#define SSL_KM_DIRECTION_UNSEAL 1

/* Makes a new key blob. 0 on success with *keyblob from malloc and its length. */
int ssl_KM_TA_crypto_services_generate_keyblob(uint8_t** keyblob, size_t* keyblob_len);

/* Seals (direction 0) or unseals (direction 1) `in`. 0 on success with *out from malloc
 * and its length; non-zero on failure, with nothing returned. */
int ssl_KM_TA_crypto_services_encrypt_decrypt_data(const uint8_t* keyblob, size_t keyblob_len,
                                                   const uint8_t* nonce, const void* in, size_t in_len,
                                                   void** out, size_t* out_len, int direction);

#ifdef __cplusplus
}
#endif

#endif /* SSL_KM_CRYPTO_SERVICES_H */
