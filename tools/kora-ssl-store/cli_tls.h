// Sockets and SSL objects for connect, serve and the demo.
#pragma once

#include <cstdio>
#include <string>

#include "kora_net_ssl.h"
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

// A socket descriptor, closed when this goes.
class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  ~Socket();
  Socket(Socket&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// A decimal port number from 1 to 65535. False with the reason in *why.
bool parse_port(const std::string& text, int* port, std::string* why);
// Splits "host:port" or "[v6addr]:port". False with the reason in *why.
bool split_host_port(const std::string& text, std::string* host, std::string* port, std::string* why);
// A TCP connection to host:port; an invalid Socket and the reason in *why on failure.
Socket tcp_connect(const std::string& host, const std::string& port, std::string* why);
// A listening TCP socket on `address` ("0.0.0.0", "127.0.0.1") and `port` (0: any free
// port); *bound_port receives the port. Invalid Socket and *why on failure.
Socket tcp_listen(const std::string& address, int port, int* bound_port, std::string* why);

// Loads a stored credential onto the object. Returns kExitOk, or prints the failure line
// (with the store's status) and returns kExitFailed.
int load_credential(ssl_obj_hdl_t hdl, kora_Net_SSL_Cert_Type_t type, const std::string& name);

// Sends the client one line of text: as an HTTP response when the client spoke HTTP first
// (curl), else as it is (openssl s_client).
void answer_client(ssl_obj_hdl_t hdl, const std::string& line);

// How the peer's certificate chain was judged, as a phrase: "ok", "failed: <reason>".
std::string verify_phrase(long verify_result);
// Prints the connection's protocol, cipher, peer subject and verification result, indented.
void print_conn_info(FILE* out, const ssl_conn_info_t& info, const std::string& verification);

}  // namespace kora::cli
