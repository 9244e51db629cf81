// Interoperability tests: an initialised store in the private root, certificates from the
// factory written out for the openssl tool, s_server on 127.0.0.1 at a port of the system's
// choosing, and one request over an object's connection.
#pragma once

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kora_certgen.h"
#include "kora_net_ssl.h"
#include "ssl_store.h"
#include "ssl_util.h"
#include "subprocess.h"

namespace kora::test {

using namespace std::chrono_literals;
using certgen::Credential;

struct Exchange {
  int open_rc = -99;
  int read_rc = -99;  // the last read: 0 closed, -1 error, > 0 stopped at the end of the page
  std::string reply;
  ssl_conn_info_t info{};
};

// A certificate for `cn`, self-signed when `issuer` is null; `dns` adds a host name.
inline Credential issue(const char* cn, const Credential* issuer, bool is_ca = false,
                        const char* dns = nullptr) {
  certgen::CertSpec spec;
  spec.subject = {{"CN", cn}};
  spec.is_ca = is_ca;
  if (dns != nullptr) {
    spec.alt_names = {{GEN_DNS, dns}};
  }
  return issuer == nullptr ? certgen::make_self_signed(spec) : certgen::make_signed(spec, *issuer);
}

inline std::string hex(const std::string& bytes) {
  char out[1024];
  OPENSSL_buf2hexstr_ex(out, sizeof out, nullptr, reinterpret_cast<const unsigned char*>(bytes.data()),
                        bytes.size(), '\0');
  return out;
}

inline std::string version_flag(int version) { return version == TLS1_3_VERSION ? "-tls1_3" : "-tls1_2"; }
inline const auto kVersionName = [](const auto& p) { return p.param == TLS1_3_VERSION ? "Tls13" : "Tls12"; };

class Interop : public ::testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);  // a peer that hangs up must not end the test process
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    ::mkdir("/data/km", 0700);
    ::mkdir("/data/tool", 0700);
    ASSERT_EQ(ssl_store_init(), 0);
    ca_ = issue("interop-ca", nullptr, true);
    server_ = issue("server.test", &ca_, false, "server.test");
  }
  void TearDown() override {
    for (ssl_obj_hdl_t hdl : objects_) {
      ssl_obj_free(hdl);
    }
  }

  static std::string tool_file(const std::string& name, const std::string& content) {
    const std::string path = "/data/tool/" + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    return path;
  }

  static std::vector<std::string> server_cert_args(const Credential& cred) {
    return {"-cert", tool_file("server.pem", cred.cert_pem()), "-key",
            tool_file("server.key", cred.key_pem())};
  }

  // "openssl s_server" on 127.0.0.1 at a free port, serving `accepts` connections.
  std::unique_ptr<Subprocess> s_server(const std::vector<std::string>& extra, int* port, int accepts = 1) {
    std::vector<std::string> argv = {
        "openssl", "s_server", "-accept", "127.0.0.1:0", "-naccept", std::to_string(accepts), "-www"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    std::string why;
    auto server = Subprocess::start(argv, &why);
    EXPECT_NE(server, nullptr) << why;
    *port = server == nullptr ? -1 : accept_port(server->wait_for_line("ACCEPT", 10s));
    EXPECT_GT(*port, 0) << (server ? server->output() : why);
    return *port > 0 ? std::move(server) : nullptr;
  }

  ssl_obj_hdl_t object(ssl_obj_role_t role) {
    ssl_obj_hdl_t hdl = 0;
    EXPECT_EQ(ssl_obj_create(role, &hdl), 0);
    objects_.push_back(hdl);
    return hdl;
  }

  static void store(const std::string& name, kora_Net_SSL_Cert_Type_t type, const std::string& bytes,
                    bool key = false) {
    ASSERT_EQ(SSL_cert_store(name.c_str(), type, bytes.data(), static_cast<int>(bytes.size()), key), 0)
        << name;
  }

  // Connects `hdl` to the server, asks for its status page and reads it to its end (the tool
  // sends no close notification). Under TLS 1.3 a refused client certificate shows only on the
  // first read. `before_close` runs while the connection is still open.
  static Exchange request(ssl_obj_hdl_t hdl, int port, const std::function<void()>& before_close = {}) {
    static const std::string kRequest = "GET / HTTP/1.0\r\n\r\n";
    Exchange out;
    const int fd = connect_loopback(port);
    EXPECT_GE(fd, 0);
    out.open_rc = ssl_conn_open(hdl, fd);
    if (out.open_rc == 0 && ssl_conn_write(hdl, kRequest.data(), static_cast<int>(kRequest.size())) ==
                                static_cast<int>(kRequest.size())) {
      char buf[4096];
      while (out.reply.find("</HTML>") == std::string::npos &&
             (out.read_rc = ssl_conn_read(hdl, buf, sizeof buf)) > 0) {
        out.reply.append(buf, static_cast<size_t>(out.read_rc));
      }
    }
    ssl_conn_get_info(hdl, &out.info);
    if (before_close) {
      before_close();
    }
    ssl_conn_close(hdl);
    ::close(fd);
    return out;
  }

  Credential ca_, server_;
  std::vector<ssl_obj_hdl_t> objects_;
};

}  // namespace kora::test
