// Real handshakes on 127.0.0.1 between the layer's client objects, loaded from the store, and
// "openssl s_server". Server objects meet their peers in test_peers.cpp, through the tool.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <tuple>

#include "file_bytes.h"
#include "kora_certgen.h"
#include "loading_fixture.h"
#include "subprocess.h"

namespace kora::test {
namespace {

using namespace std::chrono_literals;
using certgen::Credential;

// A certificate for `cn`, with `cn` as its host name; self-signed when `issuer` is null.
Credential issue(const char* cn, const Credential* issuer, bool is_ca = false) {
  const certgen::CertSpec wanted{{{"CN", cn}}, {{GEN_DNS, cn}}, false, is_ca};
  return issuer == nullptr ? certgen::make_self_signed(wanted) : certgen::make_signed(wanted, *issuer);
}

struct Exchange {
  int open_rc = -99;
  std::string reply;
  ssl_conn_info_t info{};
  int server_exit = -99;  // the server's exit code, -1 when it did not end
  std::string server_log;
};

// The loading tests' started store and client object, plus a directory for the tool.
class Interop : public LoadingTest {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);  // a peer that hangs up must not end the test process
    ::mkdir("/data/tool", 0700);
    LoadingTest::SetUp();
  }

  static std::string tool_file(const std::string& name, const std::string& content) {
    spill("/data/tool/" + name, content);
    return "/data/tool/" + name;
  }
  static std::vector<std::string> cert_args(const Credential& cred) {
    return {"-cert", tool_file("srv.pem", cred.cert_pem()), "-key", tool_file("srv.key", cred.key_pem())};
  }

  // Starts "openssl s_server -www" with `args` on 127.0.0.1 at a free port for one connection,
  // connects `hdl` to it, asks for the status page and reads it to its end (the tool sends no
  // close notification). `before_close` runs while the connection is still open.
  static Exchange request(ssl_obj_hdl_t hdl, std::vector<std::string> args,
                          const std::function<void()>& before_close = {}) {
    static const std::string kRequest = "GET / HTTP/1.0\r\n\r\n";
    args.insert(args.begin(), {"openssl", "s_server", "-accept", "127.0.0.1:0", "-www", "-naccept", "1"});
    std::string why;
    auto server = Subprocess::start(args, &why);
    const std::string line = server ? server->wait_for_line("ACCEPT 127.0.0.1:", 10s) : "";
    EXPECT_FALSE(line.empty()) << (server ? server->output() : why);
    Exchange out;
    const int fd = connect_loopback(line.empty() ? -1 : std::atoi(line.c_str() + 17));
    out.open_rc = ssl_conn_open(hdl, fd);
    if (out.open_rc == 0 && ssl_conn_write(hdl, kRequest.data(), static_cast<int>(kRequest.size())) ==
                                static_cast<int>(kRequest.size())) {
      char buf[4096];
      for (int n;
           out.reply.find("</HTML>") == std::string::npos && (n = ssl_conn_read(hdl, buf, sizeof buf)) > 0;) {
        out.reply.append(buf, static_cast<size_t>(n));
      }
    }
    ssl_conn_get_info(hdl, &out.info);
    if (before_close) {
      before_close();
    }
    ssl_conn_close(hdl);
    ::close(fd);
    out.server_exit = server ? server->wait_exit(10s) : -1;
    out.server_log = server ? server->output() : why;
    return out;
  }

  const Credential ca_ = issue("interop-ca", nullptr, true);
  const Credential server_ = issue("server.test", &ca_);
};

class Versions : public Interop, public ::testing::WithParamInterface<int> {};
const auto kVersionName = [](const auto& p) { return p.param == TLS1_3_VERSION ? "Tls13" : "Tls12"; };

// The stored certificate and key satisfy a server that demands one; the session saved from that
// connection (its resumption is in the object layer's tests) goes with the credential.
TEST_P(Versions, StoredClientCertificateIsAcceptedAndItsSessionRemovedWithIt) {
  const Credential dev = issue("dev-client", &ca_);
  put("dev", KORA_NET_SSL_CERTIFICATE_E, dev.cert_pem());
  put("dev", KORA_NET_SSL_CERTIFICATE_E, dev.key_pem(), true);
  put("interop-ca", KORA_NET_SSL_CA_LIST_E, ca_.cert_pem());
  ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_CA_LIST_E, "interop-ca"), 0);
  ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_CERTIFICATE_E, "dev"), 0);  // names the object "dev"
  ASSERT_EQ(ssl_obj_set_protocol_bounds(hdl_, GetParam(), GetParam()), 0);
  ASSERT_EQ(ssl_obj_set_server_name(hdl_, "server.test"), 0);
  auto args = cert_args(server_);
  args.insert(args.end(), {"-Verify", "1", "-CAfile", tool_file("ca.pem", ca_.cert_pem()),
                           GetParam() == TLS1_3_VERSION ? "-tls1_3" : "-tls1_2"});
  char saved[512] = {};
  int save_rc = -99;
  const Exchange first = request(hdl_, args, [&] { save_rc = ssl_session_save(hdl_, saved, sizeof saved); });
  ASSERT_EQ(first.open_rc, 0);
  EXPECT_EQ(first.info.verify_result, X509_V_OK);
  EXPECT_STREQ(first.info.peer_subject, "/CN=server.test");
  EXPECT_NE(first.reply.find("Subject: CN=dev-client"), std::string::npos) << first.reply;
  ASSERT_EQ(save_rc, 0);
  const std::string session = kSessions + "dev_1.session", timestamp = kSessions + "dev_1.timestamp";
  EXPECT_EQ(saved, session);
  ASSERT_TRUE(exists(session) && exists(timestamp));
  EXPECT_EQ(first.server_exit, 0) << first.server_log;
  ASSERT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, nullptr, 0, false), 0);
  EXPECT_FALSE(exists(session) || exists(timestamp));
}

INSTANTIATE_TEST_SUITE_P(Tls, Versions, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION), kVersionName);

TEST_F(Interop, StoredCaListAcceptsItsServerAndRefusesAnotherCaOrAnotherHostCleanly) {
  const Credential other_ca = issue("other-ca", nullptr, true);
  const Credential impostor = issue("server.test", &other_ca);
  const Credential other_host = issue("other.test", &ca_);
  put("trusted", KORA_NET_SSL_CA_LIST_E, ca_.cert_pem());
  for (const auto& [presented, open_rc, verify_result] :
       {std::tuple{&server_, 0, long{X509_V_OK}},
        std::tuple{&impostor, -1, long{X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}},
        std::tuple{&other_host, -1, long{X509_V_ERR_HOSTNAME_MISMATCH}}}) {
    ssl_obj_free(hdl_);  // a fresh object for each peer
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl_), 0);
    ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_CA_LIST_E, "trusted"), 0);
    ASSERT_EQ(ssl_obj_set_server_name(hdl_, "server.test"), 0);
    const Exchange ex = request(hdl_, cert_args(*presented));
    EXPECT_EQ(ex.open_rc, open_rc);
    EXPECT_EQ(ex.info.verify_result, verify_result);
    EXPECT_EQ(ex.reply.empty(), open_rc != 0);
    EXPECT_GE(ex.server_exit, 0) << "server did not end\n" << ex.server_log;
  }
}

// One stored table of three entries. Under TLS 1.2 the server's identity hint picks the entry;
// under TLS 1.3 the client offers the first entry as an external PSK.
TEST_F(Interop, PskTableEntryIsChosenByTheServersHintOrOfferedFirst) {
  const std::string keys[] = {std::string(32, '1'), std::string(40, 'b'), std::string(64, '5')};  // in hex
  const std::string text = "alpha:" + keys[0] + "\r\nbeta:" + keys[1] + "\r\ngamma:" + keys[2] + "\r\n";
  kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(text.size()),
                                 reinterpret_cast<uint8_t*>(const_cast<char*>(text.data()))};
  ASSERT_EQ(ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>("psks")), 0);
  for (const auto& [version, identity, key, open_rc] :
       {std::tuple{TLS1_2_VERSION, "beta", keys[1], 0}, std::tuple{TLS1_2_VERSION, "gamma", keys[2], 0},
        std::tuple{TLS1_2_VERSION, "delta", keys[0], -1}, std::tuple{TLS1_3_VERSION, "alpha", keys[0], 0}}) {
    const bool tls13 = version == TLS1_3_VERSION;
    ssl_obj_free(hdl_);  // a fresh object for each peer
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl_), 0);
    ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_PSK_TABLE_E, "psks"), 0);
    ASSERT_EQ(ssl_obj_set_protocol_bounds(hdl_, version, version), 0);
    ASSERT_EQ(ssl_obj_set_ciphers(hdl_, "PSK-AES128-GCM-SHA256",
                                  "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256"),
              0);
    const Exchange ex = request(hdl_, {"-nocert", "-psk", key, "-psk_identity", identity, "-psk_hint",
                                       identity, "-cipher", "PSK-AES128-GCM-SHA256", "-ciphersuites",
                                       "TLS_AES_128_GCM_SHA256", tls13 ? "-tls1_3" : "-tls1_2"});
    EXPECT_EQ(ex.open_rc, open_rc) << identity;
    EXPECT_EQ(ex.reply.find("</HTML>") != std::string::npos, open_rc == 0) << identity;
    if (open_rc == 0) {
      EXPECT_STREQ(ex.info.cipher, tls13 ? "TLS_AES_128_GCM_SHA256" : "PSK-AES128-GCM-SHA256");
    }
    EXPECT_GE(ex.server_exit, 0) << identity << "\n" << ex.server_log;
  }
}

}  // namespace
}  // namespace kora::test
