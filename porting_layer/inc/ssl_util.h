/* SSL object layer: the table of SSL objects, their OpenSSL contexts, the global lock, and
 * the lookups the credential store calls. */
#ifndef SSL_UTIL_H
#define SSL_UTIL_H

#include <openssl/ssl.h>
#include <stdbool.h>
#include <stdint.h>
#include <time.h>

#include "ivra_mutex.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t ssl_obj_hdl_t;

#define SSL_MAX_OBJ 10

/* ex-data index of an SSL object's context at which its device-identity certificate hangs. */
#define SSL_DI_CERT_EX_DATA_INDEX 1

typedef struct {
  char ciphersuite[256];
  uint16_t protocol;
  time_t lifetime;
  time_t session_timestamp;
} session_store_t;

typedef struct {
  uint32_t obj_hndl;
  uint32_t conn_hndl;
  uint32_t openssl_obj_hndl;
  uint32_t openssl_conn_hndl;
  char sess[512];
  char cert[256];
  char* psk_identify_key;
  char ciphersuite[256];
  uint16_t protocol;
  time_t life_time;
  time_t session_timestamp;
  time_t connection_timeout;
  time_t timer;
  bool ssl_obj_deletion;
} gbl_ssl_ctx_t;

extern gbl_ssl_ctx_t g_ssl_ctxt[SSL_MAX_OBJ];
extern ivra_mutex_t ssl_mutex;

/* The context of a handle, or null when the handle names no object. */
SSL_CTX* ssl_get_obj_context(ssl_obj_hdl_t hdl);
/* Stores in *index the position of ctx's record in g_ssl_ctxt; leaves *index untouched when
 * there is none. 0 found, -1 not found. */
int utility_get_ssl_ctxt(SSL_CTX* ctx, int* index);
/* Records `name` as the credential loaded on the object whose context is ctx. 0 on success. */
int SSL_set_cert_info(SSL_CTX* ctx, const char* name);
/* Non-zero when the first `len` bytes of buf look like DER rather than PEM text. */
int openssl_IsDerFormat(const uint8_t* buf, uint16_t len);
/* Fills buf with len random bytes. 0 on success. */
int ssl_get_random_number(uint16_t len, uint8_t* buf);
/* Drains OpenSSL's error queue of this thread into the diagnostic log. */
void log_ssl_internal_error_impl(const char* func, int line);

/* Object life cycle. */
typedef enum { SSL_OBJ_ROLE_CLIENT = 0, SSL_OBJ_ROLE_SERVER = 1 } ssl_obj_role_t;

/* Creates an SSL object with a context of its own; *hdl receives its handle (never 0).
 * 0 on success, -2 null argument, -3 no free slot or no memory, -1 OpenSSL failure. */
int ssl_obj_create(ssl_obj_role_t role, ssl_obj_hdl_t* hdl);
/* Frees the object: its connection, its context (with the certificate at ex-data index 1)
 * and its PSK table. 0 on success, -2 unknown handle. */
int ssl_obj_free(ssl_obj_hdl_t hdl);

#ifdef __cplusplus
}
#endif

#endif /* SSL_UTIL_H */
