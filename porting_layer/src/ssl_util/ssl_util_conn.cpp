// Connections on SSL objects: handshake, read, write, shutdown, close and what was agreed.
//
// The handshake and the I/O run without ssl_mutex: a handshake waits on the network and calls
// the store's PSK callback, and neither may hold up the store. The lock covers only the
// attach and detach of the connection in the table.
#include <glib.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include "ossl_ptr.h"
#include "ssl_util.h"
#include "ssl_util_internal.h"
#include "ssl_util_log.h"

namespace kora::util {
namespace {

uint32_t g_last_conn = 0;  // changed under ssl_mutex only

// The open connection of hdl, or null.
SSL* connection_of(ssl_obj_hdl_t hdl) {
  const int index = find_slot(hdl);
  return index < 0 ? nullptr : slot_at(index).ssl.load(std::memory_order_acquire);
}

// Creates the connection of slot `index` over fd. Called under ssl_mutex.
int attach(int index, int fd, SSL** out) {
  Slot& slot = slot_at(index);
  SslPtr previous(slot.ssl.exchange(nullptr));  // an earlier connection is closed by a new open
  SslPtr ssl(SSL_new(slot.ctx.load()));
  if (!ssl) {
    UTIL_LOG_ERROR("ssl_conn_open: SSL_new failed\n");
    log_ssl_internal_error_impl(__func__, __LINE__);
    return -3;
  }
  if (SSL_set_fd(ssl.get(), fd) != 1) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    return -1;
  }
  if (slot.role == SSL_OBJ_ROLE_CLIENT) {
    if (slot.server_name[0] != '\0' && (SSL_set_tlsext_host_name(ssl.get(), slot.server_name) != 1 ||
                                        SSL_set1_host(ssl.get(), slot.server_name) != 1)) {
      log_ssl_internal_error_impl(__func__, __LINE__);
      return -1;
    }
    offer_saved_session(index, ssl.get());
  }
  gbl_ssl_ctx_t& rec = g_ssl_ctxt[index];
  if (++g_last_conn == 0) {
    ++g_last_conn;
  }
  rec.conn_hndl = g_last_conn;
  rec.openssl_conn_hndl = static_cast<uint32_t>(index) + 1;  // names the slot's private connection
  *out = ssl.get();
  slot.ssl.store(ssl.release(), std::memory_order_release);  // owned by the slot until close
  return 0;
}

// Records what the handshake agreed in the object's record. Called under ssl_mutex.
void note_agreement(int index, SSL* ssl) {
  gbl_ssl_ctx_t& rec = g_ssl_ctxt[index];
  const SSL_CIPHER* cipher = SSL_get_current_cipher(ssl);
  (void)g_strlcpy(rec.ciphersuite, cipher != nullptr ? SSL_CIPHER_get_name(cipher) : "",
                  sizeof rec.ciphersuite);
  rec.protocol = static_cast<uint16_t>(SSL_version(ssl));
}

int conn_open(ssl_obj_hdl_t hdl, int fd) {
  if (fd < 0) {
    UTIL_LOG_ERROR("ssl_conn_open: invalid socket %d\n", fd);
    return -2;
  }
  ivra_mutex_lock(&ssl_mutex);
  const int index = find_slot(hdl);
  if (index < 0) {
    ivra_mutex_unlock(&ssl_mutex);
    UTIL_LOG_ERROR("ssl_conn_open: unknown handle %u\n", hdl);
    return -2;
  }
  SSL* ssl = nullptr;
  const int status = attach(index, fd, &ssl);
  const bool client = slot_at(index).role == SSL_OBJ_ROLE_CLIENT;
  ivra_mutex_unlock(&ssl_mutex);
  if (status != 0) {
    return status;
  }
  ERR_clear_error();
  if ((client ? SSL_connect(ssl) : SSL_accept(ssl)) != 1) {
    UTIL_LOG_ERROR("ssl_conn_open: handshake failed, verify result %ld\n", SSL_get_verify_result(ssl));
    log_ssl_internal_error_impl(__func__, __LINE__);
    return -1;
  }
  ivra_mutex_lock(&ssl_mutex);
  if (find_slot(hdl) == index) {
    note_agreement(index, ssl);
  }
  ivra_mutex_unlock(&ssl_mutex);
  return 0;
}

int conn_read(ssl_obj_hdl_t hdl, void* buf, int len) {
  SSL* ssl = connection_of(hdl);
  if (ssl == nullptr || buf == nullptr || len <= 0) {
    return -2;
  }
  ERR_clear_error();
  const int n = SSL_read(ssl, buf, len);
  if (n > 0) {
    return n;
  }
  const int error = SSL_get_error(ssl, n);
  if (error == SSL_ERROR_ZERO_RETURN) {
    return 0;
  }
  UTIL_LOG_ERROR("ssl_conn_read: read failed, SSL error %d\n", error);
  log_ssl_internal_error_impl(__func__, __LINE__);
  return -1;
}

int conn_write(ssl_obj_hdl_t hdl, const void* buf, int len) {
  SSL* ssl = connection_of(hdl);
  if (ssl == nullptr || buf == nullptr || len < 0) {
    return -2;
  }
  if (len == 0) {
    return 0;
  }
  ERR_clear_error();
  // Without partial writes enabled, a blocking SSL_write returns only once all of it is sent.
  const int n = SSL_write(ssl, buf, len);
  if (n == len) {
    return n;
  }
  UTIL_LOG_ERROR("ssl_conn_write: write failed, SSL error %d\n", SSL_get_error(ssl, n));
  log_ssl_internal_error_impl(__func__, __LINE__);
  return -1;
}

int conn_shutdown(ssl_obj_hdl_t hdl) {
  SSL* ssl = connection_of(hdl);
  if (ssl == nullptr) {
    return -2;
  }
  ERR_clear_error();
  if (SSL_shutdown(ssl) < 0) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    return -1;
  }
  return 0;
}

int conn_close(ssl_obj_hdl_t hdl) {
  ivra_mutex_lock(&ssl_mutex);
  const int index = find_slot(hdl);
  SslPtr ssl(index < 0 ? nullptr : slot_at(index).ssl.exchange(nullptr));
  if (!ssl) {
    ivra_mutex_unlock(&ssl_mutex);
    return -2;
  }
  g_ssl_ctxt[index].conn_hndl = 0;
  g_ssl_ctxt[index].openssl_conn_hndl = 0;
  ivra_mutex_unlock(&ssl_mutex);
  return 0;
}

int conn_info(ssl_obj_hdl_t hdl, ssl_conn_info_t* out) {
  SSL* ssl = connection_of(hdl);
  if (ssl == nullptr || out == nullptr) {
    return -2;
  }
  *out = ssl_conn_info_t{};
  (void)g_strlcpy(out->protocol, SSL_get_version(ssl), sizeof out->protocol);
  const SSL_CIPHER* cipher = SSL_get_current_cipher(ssl);
  if (cipher != nullptr) {
    (void)g_strlcpy(out->cipher, SSL_CIPHER_get_name(cipher), sizeof out->cipher);
  }
  X509Ptr peer(SSL_get1_peer_certificate(ssl));
  if (peer) {
    (void)X509_NAME_oneline(X509_get_subject_name(peer.get()), out->peer_subject, sizeof out->peer_subject);
  }
  out->verify_result = SSL_get_verify_result(ssl);
  out->session_reused = SSL_session_reused(ssl) == 1 ? 1 : 0;
  return 0;
}

}  // namespace
}  // namespace kora::util

extern "C" {

int ssl_conn_open(ssl_obj_hdl_t hdl, int fd) { return kora::util::conn_open(hdl, fd); }

int ssl_conn_read(ssl_obj_hdl_t hdl, void* buf, int len) { return kora::util::conn_read(hdl, buf, len); }

int ssl_conn_write(ssl_obj_hdl_t hdl, const void* buf, int len) {
  return kora::util::conn_write(hdl, buf, len);
}

int ssl_conn_shutdown(ssl_obj_hdl_t hdl) { return kora::util::conn_shutdown(hdl); }

int ssl_conn_close(ssl_obj_hdl_t hdl) { return kora::util::conn_close(hdl); }

int ssl_conn_get_info(ssl_obj_hdl_t hdl, ssl_conn_info_t* info) { return kora::util::conn_info(hdl, info); }

}  // extern "C"
