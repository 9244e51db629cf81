/* SSL object layer: the table of SSL objects, their OpenSSL contexts, the global lock, and
 * the lookups the credential store calls. */
#ifndef SSL_UTIL_H
#define SSL_UTIL_H

#include <openssl/ssl.h>
#include <stdbool.h>
#include <stddef.h>
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

/* Status codes of the object layer's calls (those that return counts say so). */
typedef enum {
  SSL_UTIL_OK = 0,
  SSL_UTIL_ERR_FAILED = -1,      /* OpenSSL, a file or the handshake failed */
  SSL_UTIL_ERR_INVALID = -2,     /* unknown handle, no connection, or a bad argument */
  SSL_UTIL_ERR_NO_RESOURCE = -3, /* no free object slot, or no memory */
} ssl_util_status_t;

/* Object life cycle. */
typedef enum { SSL_OBJ_ROLE_CLIENT = 0, SSL_OBJ_ROLE_SERVER = 1 } ssl_obj_role_t;

/* Creates an SSL object with a context of its own; *hdl receives its handle (never 0).
 * 0 on success, -2 null argument, -3 no free slot or no memory, -1 OpenSSL failure. */
int ssl_obj_create(ssl_obj_role_t role, ssl_obj_hdl_t* hdl);
/* Frees the object: its connection, its context (with the certificate at ex-data index 1)
 * and its PSK table. 0 on success, -2 unknown handle. */
int ssl_obj_free(ssl_obj_hdl_t hdl);

/* Connection settings of an object. They apply to its context and so to every later
 * connection on it. Each returns 0, -2 for an unknown handle or a bad argument, -1 when
 * OpenSSL refuses the value. */
/* Lowest and highest protocol version (TLS1_2_VERSION, TLS1_3_VERSION); 0 leaves that end open. */
int ssl_obj_set_protocol_bounds(ssl_obj_hdl_t hdl, int min_version, int max_version);
/* Cipher list for TLS 1.2 and the TLS 1.3 suites, in OpenSSL's syntax; null keeps the current one. */
int ssl_obj_set_ciphers(ssl_obj_hdl_t hdl, const char* tls12_ciphers, const char* tls13_suites);
/* SSL_VERIFY_NONE, or SSL_VERIFY_PEER optionally with SSL_VERIFY_FAIL_IF_NO_PEER_CERT. A new
 * client object verifies its server; a new server object asks for no client certificate. */
int ssl_obj_set_verify(ssl_obj_hdl_t hdl, int mode);
/* Client side: the server name sent in the handshake and, when the server is verified, the
 * host name its certificate must carry. An IPv4 or IPv6 address is not sent; the certificate
 * must carry it as an IP address. Null or "" clears it. At most 255 characters. */
int ssl_obj_set_server_name(ssl_obj_hdl_t hdl, const char* name);
/* Client side with a PSK table: the identity whose entry the store's callback serves, whatever
 * hint the server sends (without one, the hint chooses under TLS 1.2 and the first entry is
 * offered under TLS 1.3). Null or "" clears it. At most 255 characters. */
int ssl_obj_set_psk_identity(ssl_obj_hdl_t hdl, const char* identity);

/* One connection per object over a connected stream socket, in the object's role. The socket
 * stays the caller's: closing the connection does not close it. */
/* Creates the connection and runs the handshake. 0 on success; -2 unknown handle or bad fd;
 * -3 no memory; -1 handshake failed, in which case the connection is kept so that
 * ssl_conn_get_info can tell why, until ssl_conn_close. An open connection is closed first.
 * A client offers the session named by ssl_session_set_resume (or saved last), if any. */
int ssl_conn_open(ssl_obj_hdl_t hdl, int fd);
/* Bytes read (> 0), 0 when the peer closed the connection, -1 on error, -2 no connection. */
int ssl_conn_read(ssl_obj_hdl_t hdl, void* buf, int len);
/* Writes all len bytes: len on success, -1 on error, -2 no connection or bad argument. */
int ssl_conn_write(ssl_obj_hdl_t hdl, const void* buf, int len);
/* Waits up to timeout_ms for the peer's word after the handshake, without taking application
 * data: 0 the peer sent data or, as a TLS 1.3 server does once it accepts the client, session
 * tickets; 1 nothing came; -1 the peer ended the connection (its alert in ssl_conn_get_info);
 * -2 no connection or a negative timeout. Under TLS 1.3 a server that refuses the client's
 * certificate says so only after the client's handshake has ended. */
int ssl_conn_await_peer(ssl_obj_hdl_t hdl, int timeout_ms);
/* Sends the close notification. 0 sent, -1 error, -2 no connection. */
int ssl_conn_shutdown(ssl_obj_hdl_t hdl);
/* Frees the connection (without a close notification). 0, or -2 when there is none. */
int ssl_conn_close(ssl_obj_hdl_t hdl);

typedef struct {
  char protocol[16];      /* e.g. "TLSv1.3" */
  char cipher[64];        /* negotiated suite, "" before one is agreed */
  char peer_subject[256]; /* one-line subject of the peer's certificate, "" without one */
  long verify_result;     /* X509_V_OK or the verification error */
  int session_reused;     /* 1 when a saved session was resumed */
  char peer_alert[64];    /* the last alert the peer sent, e.g. "certificate required"; "" for none */
} ssl_conn_info_t;
/* 0 and *info filled; -2 no connection or null info. */
int ssl_conn_get_info(ssl_obj_hdl_t hdl, ssl_conn_info_t* info);

/* Sessions, bound to the credential name recorded with SSL_set_cert_info. After a handshake
 * (for TLS 1.3, after the first read, which brings the server's tickets), saves the session as
 * "<name>_<n>.session" (DER) and "<name>_<n>.timestamp" (a session_store_t) in the store's
 * sessions directory (ssl_store_layout.h), n the first free number from 1, and marks it for
 * resumption by the next ssl_conn_open on the object. Both file names must fit the store's
 * 63-character limit of SSL_session_get_abs_path. `path` (may be null) receives the .session path.
 * 0; -2 no connection or no credential name; -1 no resumable session or a file error. */
int ssl_session_save(ssl_obj_hdl_t hdl, char* path, size_t path_len);
/* Marks a saved .session file for resumption by the next ssl_conn_open; null clears. A missing
 * or expired file is skipped then, and the handshake is a full one. 0, or -2. */
int ssl_session_set_resume(ssl_obj_hdl_t hdl, const char* session_path);

#ifdef __cplusplus
}
#endif

#endif /* SSL_UTIL_H */
