// Loopback handshakes: object-layer sides and a plain OpenSSL PSK server.
#include "demo_loopback.h"

#include <glib.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>
#include <thread>

#include "cli_net.h"
#include "cli_session.h"
#include "ossl_ptr.h"

namespace kora::cli {
namespace {

// A side that stops answering for this long must not hang the demo.
constexpr int kSideTimeoutSeconds = 10;

unsigned int psk_server_cb(SSL* ssl, const char* identity, unsigned char* psk, unsigned int max_psk_len) {
  const auto* peer = static_cast<const PskPeer*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
  if (peer == nullptr || identity == nullptr || peer->identity != identity ||
      peer->key.size() > max_psk_len) {
    return 0;
  }
  std::memcpy(psk, peer->key.data(), peer->key.size());
  return static_cast<unsigned int>(peer->key.size());
}

}  // namespace

LoopbackResult run_loopback(const Side& server, const Side& client) {
  LoopbackResult result;
  int port = 0;
  Socket listener = tcp_listen(kLoopbackAddress, 0, &port, &result.error);
  if (listener.fd() < 0) {
    return result;
  }
  std::thread server_thread([&] {
    std::string ignored;  // a failed client connect has set the error already
    Socket conn = tcp_accept(listener, &ignored);
    if (conn.fd() < 0) {
      return;
    }
    set_io_timeout(conn.fd(), kSideTimeoutSeconds, true);
    result.server = server(conn.fd());
  });
  {
    Socket sock = tcp_connect(kLoopbackAddress, std::to_string(port), &result.error);
    if (sock.fd() >= 0) {
      set_io_timeout(sock.fd(), kSideTimeoutSeconds, true);
      result.client = client(sock.fd());
    } else {
      // Wake the accepting thread so that it can end.
      Socket wake = tcp_connect(kLoopbackAddress, std::to_string(port), &result.error);
    }
  }
  server_thread.join();
  return result;
}

Handshake object_side(ssl_obj_hdl_t hdl, int fd) {
  const Handshake r = handshake(hdl, fd);
  if (r.status == 0) {
    (void)ssl_conn_shutdown(hdl);
  }
  (void)ssl_conn_close(hdl);
  return r;
}

Handshake psk_server_side(const PskPeer& peer, int version, int fd) {
  Handshake r;
  SslCtxPtr ctx(SSL_CTX_new(TLS_server_method()));
  if (!ctx) {
    return r;
  }
  SSL_CTX_set_min_proto_version(ctx.get(), version);
  SSL_CTX_set_max_proto_version(ctx.get(), version);
  SSL_CTX_set_cipher_list(ctx.get(), "PSK:ECDHE-PSK");
  SSL_CTX_set_ciphersuites(ctx.get(), "TLS_AES_128_GCM_SHA256");
  SSL_CTX_set_app_data(ctx.get(), const_cast<PskPeer*>(&peer));
  SSL_CTX_set_psk_server_callback(ctx.get(), &psk_server_cb);
  SslPtr ssl(SSL_new(ctx.get()));
  if (!ssl || SSL_set_fd(ssl.get(), fd) != 1) {
    return r;
  }
  const int rc = SSL_accept(ssl.get());
  r.status = rc == 1 ? 0 : -1;
  (void)g_strlcpy(r.info.protocol, SSL_get_version(ssl.get()), sizeof(r.info.protocol));
  (void)g_strlcpy(r.info.cipher, SSL_get_cipher_name(ssl.get()), sizeof(r.info.cipher));
  r.info.verify_result = SSL_get_verify_result(ssl.get());
  r.have_info = true;
  if (rc == 1) {
    (void)SSL_shutdown(ssl.get());
  }
  ERR_clear_error();
  return r;
}

}  // namespace kora::cli
