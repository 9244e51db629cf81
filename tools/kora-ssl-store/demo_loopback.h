// Loopback handshakes for the demo: the server side runs on a thread of its own over
// 127.0.0.1, the client side on the calling thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli_session.h"
#include "ssl_util.h"

namespace kora::cli {

struct LoopbackResult {
  Handshake client;
  Handshake server;
  std::string error;  // set when the sockets themselves failed
};

// One side of a handshake over a connected socket; the socket stays the caller's.
using Side = std::function<Handshake(int fd)>;

LoopbackResult run_loopback(const Side& server, const Side& client);

// A side that runs the handshake on an SSL object of the object layer.
Handshake object_side(ssl_obj_hdl_t hdl, int fd);

// The server side of the PSK handshakes: a plain OpenSSL server that knows one identity and
// key, limited to one protocol version (TLS1_2_VERSION or TLS1_3_VERSION).
struct PskPeer {
  std::string identity;
  std::vector<unsigned char> key;
};
Handshake psk_server_side(const PskPeer& peer, int version, int fd);

}  // namespace kora::cli
