// SSL objects, handshakes and their report.
#include "cli_session.h"

#include <openssl/x509.h>

#include <algorithm>
#include <iterator>
#include <string_view>

namespace kora::cli {
namespace {

// A client that speaks first (an HTTP request) does so at once.
constexpr int kClientFirstWaitMs = 1000;
// The most of a client's first words that are read to tell HTTP from a plain line.
constexpr size_t kMaxRequestBytes = 8192;
// Read size for the client's first words.
constexpr size_t kReadChunkBytes = 1024;
// A client whose first words start with one of these spoke HTTP.
constexpr std::string_view kHttpMethods[] = {"GET ", "HEAD ", "POST "};

}  // namespace

SslObject::~SslObject() {
  if (hdl_ != 0) {
    (void)ssl_obj_free(hdl_);
  }
}

int SslObject::create(ssl_obj_role_t role) { return ssl_obj_create(role, &hdl_); }

Handshake handshake(ssl_obj_hdl_t hdl, int fd) {
  Handshake h;
  h.status = ssl_conn_open(hdl, fd);
  h.have_info = ssl_conn_get_info(hdl, &h.info) == 0;
  return h;
}

std::string verification(const HandshakeReport& report, const ssl_conn_info_t& info) {
  return report.verified ? verify_phrase(info.verify_result) : report.unverified;
}

std::string failure_line(const HandshakeReport& report, const ssl_conn_info_t& info) {
  std::string line = "TLS handshake with " + report.peer + " failed";
  if (report.verified && info.verify_result != X509_V_OK) {
    line += std::string(": ") + report.peer_role + " certificate " + verification(report, info);
  } else if (report.quote_alert && info.peer_alert[0] != '\0') {
    line += std::string(": the ") + report.peer_role + " sent alert '" + info.peer_alert + "'";
  }
  return line;
}

void print_connected(const std::string& headline, const HandshakeReport& report,
                     const ssl_conn_info_t& info) {
  std::printf("%s\n", headline.c_str());
  print_conn_info(stdout, info, verification(report, info));
  (void)std::fflush(stdout);
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

void answer_client(ssl_obj_hdl_t hdl, const std::string& line) {
  std::string request;
  char buf[kReadChunkBytes];
  for (int n; request.size() < kMaxRequestBytes && request.find("\r\n\r\n") == std::string::npos &&
              ssl_conn_await_peer(hdl, kClientFirstWaitMs) == 0 &&
              (n = ssl_conn_read(hdl, buf, sizeof buf)) > 0;) {
    request.append(buf, static_cast<size_t>(n));
  }
  std::string reply = line + "\n";
  const auto starts_request = [&request](std::string_view method) { return request.rfind(method, 0) == 0; };
  if (std::any_of(std::begin(kHttpMethods), std::end(kHttpMethods), starts_request)) {
    reply = "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(reply.size()) +
            "\r\nConnection: close\r\n\r\n" + reply;
  }
  (void)ssl_conn_write(hdl, reply.data(), static_cast<int>(reply.size()));
}

}  // namespace kora::cli
