// TLS sessions of connect, serve and the demo: SSL-object ownership, the handshake and the
// one report of its outcome.
#pragma once

#include <cstdio>
#include <string>

#include "ssl_util.h"

namespace kora::cli {

// Cipher choices of a PSK client. OpenSSL's PSK client callback serves TLS 1.3 only with
// suites on SHA-256.
inline constexpr const char* kPskTls12Ciphers = "PSK:ECDHE-PSK:DHE-PSK";
inline constexpr const char* kPskTls13Suites = "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256";

// An SSL object of the object layer, freed when this goes.
class SslObject {
 public:
  SslObject() = default;
  ~SslObject();
  SslObject(const SslObject&) = delete;
  SslObject& operator=(const SslObject&) = delete;

  // 0, or the object layer's status.
  int create(ssl_obj_role_t role);
  ssl_obj_hdl_t hdl() const { return hdl_; }

 private:
  ssl_obj_hdl_t hdl_ = 0;
};

// What one handshake showed.
struct Handshake {
  int status = -1;  // 0: the handshake completed, else the object layer's status
  ssl_conn_info_t info{};
  bool have_info = false;
};

// Runs the handshake of `hdl` over the connected socket `fd` (which stays the caller's) and
// reads what the connection agreed; the connection stays open.
Handshake handshake(ssl_obj_hdl_t hdl, int fd);

// How a command words the outcome of its handshakes.
struct HandshakeReport {
  std::string peer;        // as the failure line names it: "127.0.0.1:4433", "a client"
  const char* peer_role;   // whose certificate a CA list judges: "server", "client"
  bool verified;           // a CA list judged the peer's certificate
  const char* unverified;  // the verification phrase when none did
  bool quote_alert;        // the failure line quotes the alert the peer sent
};

// The verification phrase: "ok", "failed: <reason>", or the report's `unverified`.
std::string verification(const HandshakeReport& report, const ssl_conn_info_t& info);
// "TLS handshake with <peer> failed", with the peer's rejected certificate or its alert.
std::string failure_line(const HandshakeReport& report, const ssl_conn_info_t& info);
// "<headline>" and the connection's lines on standard output, flushed.
void print_connected(const std::string& headline, const HandshakeReport& report, const ssl_conn_info_t& info);

// How the peer's certificate chain was judged, as a phrase: "ok", "failed: <reason>".
std::string verify_phrase(long verify_result);
// Prints the connection's protocol, cipher, peer subject and verification result, indented.
void print_conn_info(FILE* out, const ssl_conn_info_t& info, const std::string& verification);

// Sends the client one line of text: as an HTTP response when the client spoke HTTP first
// (curl), else as it is (openssl s_client).
void answer_client(ssl_obj_hdl_t hdl, const std::string& line);

}  // namespace kora::cli
