// Connections on SSL objects: handshake, read, write, shutdown, close and what was agreed.
//
// The handshake and the I/O run without ssl_mutex: a handshake waits on the network and calls
// the store's PSK callback, and neither may hold up the store. The lock covers only the
// attach and detach of the connection in the table.
#include <arpa/inet.h>
#include <fcntl.h>
#include <glib.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <string>

#include "ivra_lock.h"
#include "ossl_ptr.h"
#include "ssl_store.h"
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

bool is_ip_literal(const char* host) {
  unsigned char addr[sizeof(struct in6_addr)];
  return inet_pton(AF_INET, host, addr) == 1 || inet_pton(AF_INET6, host, addr) == 1;
}

// A host name goes out as SNI and must be a DNS name of the server's certificate; an address
// is not sent (SNI carries names only) and must be one of its IP addresses.
bool expect_server(SSL* ssl, const char* name) {
  if (is_ip_literal(name)) {
    return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name) == 1;
  }
  return SSL_set_tlsext_host_name(ssl, name) == 1 && SSL_set1_host(ssl, name) == 1;
}

// Keeps the last alert the peer sent (other than a close notification) in its slot, whose
// field the connection carries as its application data.
void note_peer_alert(const SSL* ssl, int where, int value) {
  if ((where & SSL_CB_READ_ALERT) == 0 || (value & 0xff) == SSL_AD_CLOSE_NOTIFY) {
    return;
  }
  auto* alert = static_cast<char*>(SSL_get_app_data(ssl));
  if (alert == nullptr) {
    return;
  }
  // OpenSSL has no text for the alert TLS 1.3 added for a missing client certificate.
  const std::string text = (value & 0xff) == TLS13_AD_CERTIFICATE_REQUIRED
                               ? "certificate required"
                               : SSL_alert_desc_string_long(value);
  (void)g_strlcpy(alert, text == "unknown" ? ("alert " + std::to_string(value & 0xff)).c_str() : text.c_str(),
                  sizeof Slot{}.peer_alert);
}

// The client's PSK callback when an identity was chosen: the store's callback, asked for that
// identity in place of the server's hint.
unsigned int psk_by_identity(SSL* ssl, const char* hint, char* identity, unsigned int max_identity_len,
                             unsigned char* psk, unsigned int max_psk_len) {
  int index = -1;
  if (utility_get_ssl_ctxt(SSL_get_SSL_CTX(ssl), &index) != 0) {
    return 0;
  }
  const char* chosen = slot_at(index).psk_identity;
  UTIL_LOG_HIGH("PSK identity '%s' chosen over the server's hint '%s'\n", chosen,
                hint != nullptr ? hint : "");
  return psk_client_cb(ssl, chosen, identity, max_identity_len, psk, max_psk_len);
}

// Creates the connection of slot `index` over fd. Called under ssl_mutex.
int attach(int index, int fd, SSL** out) {
  Slot& slot = slot_at(index);
  SslPtr previous(slot.ssl.exchange(nullptr));  // an earlier connection is closed by a new open
  SslPtr ssl(SSL_new(slot.ctx.load()));
  if (!ssl) {
    UTIL_LOG_ERROR("ssl_conn_open: SSL_new failed\n");
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_NO_RESOURCE;
  }
  if (SSL_set_fd(ssl.get(), fd) != 1) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_FAILED;
  }
  slot.peer_alert[0] = '\0';
  (void)SSL_set_app_data(ssl.get(), slot.peer_alert);
  SSL_set_info_callback(ssl.get(), note_peer_alert);
  if (slot.role == SSL_OBJ_ROLE_CLIENT) {
    if (slot.server_name[0] != '\0' && !expect_server(ssl.get(), slot.server_name)) {
      log_ssl_internal_error_impl(__func__, __LINE__);
      return SSL_UTIL_ERR_FAILED;
    }
    if (slot.psk_identity[0] != '\0') {
      SSL_set_psk_client_callback(ssl.get(), psk_by_identity);
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
    return SSL_UTIL_ERR_INVALID;
  }
  SlotLock lock(hdl, "ssl_conn_open");
  if (!lock.found()) {
    return SSL_UTIL_ERR_INVALID;
  }
  const int index = lock.index();
  SSL* ssl = nullptr;
  const int status = attach(index, fd, &ssl);
  const bool client = slot_at(index).role == SSL_OBJ_ROLE_CLIENT;
  lock.unlock();  // the handshake runs without the lock
  if (status != 0) {
    return status;
  }
  ERR_clear_error();
  if ((client ? SSL_connect(ssl) : SSL_accept(ssl)) != 1) {
    UTIL_LOG_ERROR("ssl_conn_open: handshake failed, verify result %ld\n", SSL_get_verify_result(ssl));
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_FAILED;
  }
  const IvraLock relock(&ssl_mutex);
  if (find_slot(hdl) == index) {
    note_agreement(index, ssl);
  }
  return 0;
}

int conn_read(ssl_obj_hdl_t hdl, void* buf, int len) {
  SSL* ssl = connection_of(hdl);
  if (ssl == nullptr || buf == nullptr || len <= 0) {
    return SSL_UTIL_ERR_INVALID;
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
  return SSL_UTIL_ERR_FAILED;
}

int conn_write(ssl_obj_hdl_t hdl, const void* buf, int len) {
  SSL* ssl = connection_of(hdl);
  if (ssl == nullptr || buf == nullptr || len < 0) {
    return SSL_UTIL_ERR_INVALID;
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
  return SSL_UTIL_ERR_FAILED;
}

// Restores a descriptor's blocking mode when it goes.
class NonBlocking {
 public:
  explicit NonBlocking(int fd) : fd_(fd), flags_(::fcntl(fd, F_GETFL)) {
    ok_ = flags_ >= 0 && ::fcntl(fd, F_SETFL, flags_ | O_NONBLOCK) == 0;
  }
  ~NonBlocking() {
    if (ok_) {
      (void)::fcntl(fd_, F_SETFL, flags_);
    }
  }
  NonBlocking(const NonBlocking&) = delete;
  NonBlocking& operator=(const NonBlocking&) = delete;
  bool ok() const { return ok_; }

 private:
  int fd_;
  int flags_;
  bool ok_ = false;
};

int await_peer(ssl_obj_hdl_t hdl, int timeout_ms) {
  SSL* ssl = connection_of(hdl);
  if (ssl == nullptr || timeout_ms < 0) {
    return SSL_UTIL_ERR_INVALID;
  }
  const int fd = SSL_get_rfd(ssl);
  const NonBlocking nonblocking(fd);
  if (!nonblocking.ok()) {
    return SSL_UTIL_ERR_FAILED;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    ERR_clear_error();
    char byte;
    const int n = SSL_peek(ssl, &byte, 1);  // data stays for the next read
    if (n > 0) {
      return 0;
    }
    if (SSL_get_error(ssl, n) != SSL_ERROR_WANT_READ) {
      log_ssl_internal_error_impl(__func__, __LINE__);
      return SSL_UTIL_ERR_FAILED;
    }
    // A TLS 1.3 server sends its tickets once it has accepted the client's last flight.
    if (SSL_is_server(ssl) == 0 && SSL_SESSION_is_resumable(SSL_get0_session(ssl)) == 1) {
      return 0;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd pfd{fd, POLLIN, 0};
    const int ready = left.count() > 0 ? ::poll(&pfd, 1, static_cast<int>(left.count())) : 0;
    if (ready == 0 || (ready < 0 && errno != EINTR)) {
      return 1;
    }
  }
}

int conn_shutdown(ssl_obj_hdl_t hdl) {
  SSL* ssl = connection_of(hdl);
  if (ssl == nullptr) {
    return SSL_UTIL_ERR_INVALID;
  }
  ERR_clear_error();
  if (SSL_shutdown(ssl) < 0) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_FAILED;
  }
  return 0;
}

int conn_close(ssl_obj_hdl_t hdl) {
  IvraLock lock(&ssl_mutex);
  const int index = find_slot(hdl);
  SslPtr ssl(index < 0 ? nullptr : slot_at(index).ssl.exchange(nullptr));
  if (!ssl) {
    return SSL_UTIL_ERR_INVALID;
  }
  g_ssl_ctxt[index].conn_hndl = 0;
  g_ssl_ctxt[index].openssl_conn_hndl = 0;
  lock.unlock();  // the connection is freed without the lock
  return 0;
}

int conn_info(ssl_obj_hdl_t hdl, ssl_conn_info_t* out) {
  SSL* ssl = connection_of(hdl);
  if (ssl == nullptr || out == nullptr) {
    return SSL_UTIL_ERR_INVALID;
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
  const auto* alert = static_cast<const char*>(SSL_get_app_data(ssl));
  (void)g_strlcpy(out->peer_alert, alert != nullptr ? alert : "", sizeof out->peer_alert);
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

int ssl_conn_await_peer(ssl_obj_hdl_t hdl, int timeout_ms) { return kora::util::await_peer(hdl, timeout_ms); }

int ssl_conn_shutdown(ssl_obj_hdl_t hdl) { return kora::util::conn_shutdown(hdl); }

int ssl_conn_close(ssl_obj_hdl_t hdl) { return kora::util::conn_close(hdl); }

int ssl_conn_get_info(ssl_obj_hdl_t hdl, ssl_conn_info_t* info) { return kora::util::conn_info(hdl, info); }

}  // extern "C"
