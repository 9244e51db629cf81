// Sockets, SSL object ownership and connection reports.
#include "cli_tls.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli_files.h"
#include "cli_names.h"
#include "cli_report.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {

SslObject::~SslObject() {
  if (hdl_ != 0) {
    (void)ssl_obj_free(hdl_);
  }
}

int SslObject::create(ssl_obj_role_t role) { return ssl_obj_create(role, &hdl_); }

Socket::~Socket() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

bool parse_port(const std::string& text, int* port, std::string* why) {
  if (!parse_number(text, 1, 65535, port)) {
    *why = "port '" + text + "' is not a number from 1 to 65535";
    return false;
  }
  return true;
}

bool split_host_port(const std::string& text, std::string* host, std::string* port, std::string* why) {
  size_t colon = std::string::npos;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
      *why = "'" + text + "' is not [ADDRESS]:PORT";
      return false;
    }
    *host = text.substr(1, close - 1);
    colon = close + 1;
  } else {
    colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
      *why = "'" + text + "' is not HOST:PORT";
      return false;
    }
    *host = text.substr(0, colon);
  }
  *port = text.substr(colon + 1);
  int number = 0;
  return parse_port(*port, &number, why);
}

Socket tcp_connect(const std::string& host, const std::string& port, std::string* why) {
  struct addrinfo hints {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* list = nullptr;
  const int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
  if (rc != 0) {
    *why = "cannot resolve " + host + ": " + gai_strerror(rc);
    return Socket();
  }
  std::string last = "no address";
  for (const struct addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    Socket s(::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol));
    if (s.fd() < 0) {
      last = std::strerror(errno);
      continue;
    }
    if (::connect(s.fd(), ai->ai_addr, ai->ai_addrlen) == 0) {
      freeaddrinfo(list);
      return s;
    }
    last = std::strerror(errno);
  }
  freeaddrinfo(list);
  *why = "cannot connect to " + host + ":" + port + ": " + last;
  return Socket();
}

Socket tcp_listen(const std::string& address, int port, int* bound_port, std::string* why) {
  Socket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (s.fd() < 0) {
    *why = std::string("cannot create a socket: ") + std::strerror(errno);
    return Socket();
  }
  const int one = 1;
  (void)::setsockopt(s.fd(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  struct sockaddr_in sa {};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, address.c_str(), &sa.sin_addr) != 1) {
    *why = "'" + address + "' is not an IPv4 address";
    return Socket();
  }
  if (::bind(s.fd(), reinterpret_cast<const struct sockaddr*>(&sa), sizeof(sa)) != 0 ||
      ::listen(s.fd(), 8) != 0) {
    *why = "cannot listen on " + address + ":" + std::to_string(port) + ": " + std::strerror(errno);
    return Socket();
  }
  socklen_t len = sizeof(sa);
  if (::getsockname(s.fd(), reinterpret_cast<struct sockaddr*>(&sa), &len) != 0) {
    *why = std::string("cannot read the bound port: ") + std::strerror(errno);
    return Socket();
  }
  *bound_port = ntohs(sa.sin_port);
  return s;
}

int load_credential(ssl_obj_hdl_t hdl, kora_Net_SSL_Cert_Type_t type, const std::string& name) {
  const Kind* kind = find_kind(type);
  const char* title = kind != nullptr ? kind->title : "credential";
  if (const std::string refusal = name_refusal(name); !refusal.empty()) {
    return usage_error(refusal);
  }
  if (const int rc = refuse_irregular_credential(type, name); rc != kExitOk) {
    return rc;
  }
  if (Is_SSL_cert_file_exist(name.c_str(), type) != KORA_OK) {
    return fail(std::string("no ") + title + " named '" + name + "' in the store");
  }
  diag_clear();
  const int status = SSL_cert_load(hdl, type, name.c_str());
  if (status == KORA_OK) {
    return kExitOk;
  }
  if (status == KORA_ERR_NOT_SUPPORTED) {
    return fail_store(std::string("loading ") + title + " '" + name +
                          "' refused: a PSK table and certificates exclude each other on one SSL object",
                      status);
  }
  return fail_store(std::string("loading ") + title + " '" + name + "' failed", status);
}

void answer_client(ssl_obj_hdl_t hdl, const std::string& line) {
  constexpr int kClientFirstWaitMs = 1000;  // a client that speaks first does so at once
  std::string request;
  char buf[1024];
  for (int n; request.size() < 8192 && request.find("\r\n\r\n") == std::string::npos &&
              ssl_conn_await_peer(hdl, kClientFirstWaitMs) == 0 &&
              (n = ssl_conn_read(hdl, buf, sizeof buf)) > 0;) {
    request.append(buf, static_cast<size_t>(n));
  }
  std::string reply = line + "\n";
  if (request.compare(0, 4, "GET ") == 0 || request.compare(0, 5, "HEAD ") == 0 ||
      request.compare(0, 5, "POST ") == 0) {
    reply = "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(reply.size()) +
            "\r\nConnection: close\r\n\r\n" + reply;
  }
  (void)ssl_conn_write(hdl, reply.data(), static_cast<int>(reply.size()));
}

std::string verify_phrase(long verify_result) {
  if (verify_result == X509_V_OK) {
    return "ok";
  }
  return std::string("failed: ") + X509_verify_cert_error_string(verify_result);
}

void print_conn_info(FILE* out, const ssl_conn_info_t& info, const std::string& verification) {
  (void)std::fprintf(out, "  protocol:      %s\n", info.protocol);
  (void)std::fprintf(out, "  cipher:        %s\n", info.cipher[0] != '\0' ? info.cipher : "(none)");
  (void)std::fprintf(out, "  peer subject:  %s\n",
                     info.peer_subject[0] != '\0' ? info.peer_subject : "(no certificate)");
  (void)std::fprintf(out, "  verification:  %s\n", verification.c_str());
}

}  // namespace kora::cli
