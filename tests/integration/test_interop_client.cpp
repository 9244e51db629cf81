// The layer as a TLS client against "openssl s_server": a client certificate, a CA list and
// PSK tables, each stored and loaded through the store.
#include "interop_fixture.h"

namespace kora::test {
namespace {

class ClientCertificate : public Interop, public ::testing::WithParamInterface<int> {};

// One object with the stored certificate and key, one without, against a server that demands
// one. Under TLS 1.3 the client's side of the handshake ends before the server checks.
TEST_P(ClientCertificate, DemandingServerAcceptsTheStoredCertificateAndRefusesNone) {
  const Credential dev = issue("dev-client", &ca_);
  store("dev", KORA_NET_SSL_CERTIFICATE_E, dev.cert_pem());
  store("dev", KORA_NET_SSL_CERTIFICATE_E, dev.key_pem(), true);
  store("interop-ca", KORA_NET_SSL_CA_LIST_E, ca_.cert_pem());
  auto args = server_cert_args(server_);
  args.insert(args.end(),
              {"-Verify", "1", "-CAfile", tool_file("ca.pem", ca_.cert_pem()), version_flag(GetParam())});
  for (const bool with_cert : {true, false}) {
    const ssl_obj_hdl_t hdl = object(SSL_OBJ_ROLE_CLIENT);
    ASSERT_EQ(SSL_cert_load(hdl, KORA_NET_SSL_CA_LIST_E, "interop-ca"), 0);
    ASSERT_TRUE(!with_cert || SSL_cert_load(hdl, KORA_NET_SSL_CERTIFICATE_E, "dev") == 0);
    ASSERT_EQ(ssl_obj_set_protocol_bounds(hdl, GetParam(), GetParam()), 0);
    ASSERT_EQ(ssl_obj_set_server_name(hdl, "server.test"), 0);
    int port = 0;
    auto server = s_server(args, &port);
    ASSERT_NE(server, nullptr);
    const Exchange ex = request(hdl, port);
    if (with_cert) {
      ASSERT_EQ(ex.open_rc, 0);
      EXPECT_EQ(ex.info.verify_result, X509_V_OK);
      EXPECT_STREQ(ex.info.peer_subject, "/CN=server.test");
      EXPECT_NE(ex.reply.find("Subject: CN=dev-client"), std::string::npos) << "our certificate unseen\n"
                                                                            << ex.reply;
      EXPECT_EQ(server->wait_exit(10s), 0) << server->output();
    } else {
      EXPECT_EQ(ex.open_rc, GetParam() == TLS1_3_VERSION ? 0 : -1);
      EXPECT_EQ(ex.read_rc, GetParam() == TLS1_3_VERSION ? -1 : -99) << ex.reply;
      EXPECT_EQ(ex.reply.find("</HTML>"), std::string::npos);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Versions, ClientCertificate, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         kVersionName);

TEST_F(Interop, StoredCaListAcceptsItsServerAndRefusesAnotherCasCleanly) {
  const Credential other_ca = issue("other-ca", nullptr, true);
  const Credential impostor = issue("server.test", &other_ca);
  store("trusted", KORA_NET_SSL_CA_LIST_E, ca_.cert_pem());
  for (const auto& [presented, open_rc, verify_result] :
       {std::tuple{static_cast<const Credential*>(&server_), 0, long{X509_V_OK}},
        std::tuple{&impostor, -1, long{X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}}}) {
    const ssl_obj_hdl_t hdl = object(SSL_OBJ_ROLE_CLIENT);
    ASSERT_EQ(SSL_cert_load(hdl, KORA_NET_SSL_CA_LIST_E, "trusted"), 0);
    int port = 0;
    auto server = s_server(server_cert_args(*presented), &port);
    ASSERT_NE(server, nullptr);
    const Exchange ex = request(hdl, port);
    EXPECT_EQ(ex.open_rc, open_rc);
    EXPECT_EQ(ex.info.verify_result, verify_result);
    EXPECT_EQ(ex.reply.empty(), open_rc != 0);
    EXPECT_GE(server->wait_exit(10s), 0) << "server did not end\n" << server->output();
  }
}

// Three entries; the server picks one by its identity hint (TLS 1.2) or by its identity (TLS 1.3).
const std::vector<std::pair<std::string, std::string>> kPskEntries = {
    {"alpha", std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10", 16)},
    {"beta",
     std::string("\xb0\xb1\xb2\xb3\xb4\xb5\xb6\xb7\xb8\xb9\xba\xbb\xbc\xbd\xbe\xbf\xc0\xc1\xc2\xc3", 20)},
    {"gamma", std::string(32, '\x5a')},
};

class Psk : public Interop {
 protected:
  void SetUp() override {
    Interop::SetUp();
    std::string text;
    for (const auto& [identity, key] : kPskEntries) {
      text += identity + ":" + hex(key) + "\r\n";
    }
    kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(text.size()),
                                   reinterpret_cast<uint8_t*>(text.data())};
    ASSERT_EQ(ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>("psks")), 0);
  }
  ssl_obj_hdl_t psk_client(int version, const char* tls12, const char* tls13) {
    const ssl_obj_hdl_t hdl = object(SSL_OBJ_ROLE_CLIENT);
    EXPECT_EQ(SSL_cert_load(hdl, KORA_NET_SSL_PSK_TABLE_E, "psks"), 0);
    EXPECT_EQ(ssl_obj_set_protocol_bounds(hdl, version, version), 0);
    EXPECT_EQ(ssl_obj_set_ciphers(hdl, tls12, tls13), 0);
    return hdl;
  }
};

TEST_F(Psk, Tls12IdentityHintSelectsTheEntry) {
  for (const auto& [hint, key, open_rc] :
       {std::tuple{"beta", kPskEntries[1].second, 0}, std::tuple{"gamma", kPskEntries[2].second, 0},
        std::tuple{"delta", kPskEntries[0].second, -1}}) {
    const ssl_obj_hdl_t hdl = psk_client(TLS1_2_VERSION, "PSK-AES128-GCM-SHA256", nullptr);
    int port = 0;
    auto server = s_server({"-nocert", "-tls1_2", "-cipher", "PSK-AES128-GCM-SHA256", "-psk", hex(key),
                            "-psk_hint", hint, "-psk_identity", hint},
                           &port);
    ASSERT_NE(server, nullptr);
    const Exchange ex = request(hdl, port);
    EXPECT_EQ(ex.open_rc, open_rc) << hint;
    EXPECT_EQ(ex.reply.find("</HTML>") != std::string::npos, open_rc == 0) << hint;
    if (open_rc == 0) {
      EXPECT_STREQ(ex.info.cipher, "PSK-AES128-GCM-SHA256");
    }
    EXPECT_GE(server->wait_exit(10s), 0) << hint << "\n" << server->output();
  }
}

TEST_F(Psk, Tls13ExternalPskUsesTheFirstEntryWithASha256Suite) {
  const ssl_obj_hdl_t hdl =
      psk_client(TLS1_3_VERSION, nullptr, "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256");
  int port = 0;
  auto server = s_server({"-nocert", "-tls1_3", "-ciphersuites", "TLS_AES_128_GCM_SHA256", "-psk",
                          hex(kPskEntries[0].second), "-psk_identity", kPskEntries[0].first},
                         &port);
  ASSERT_NE(server, nullptr);
  const Exchange ex = request(hdl, port);
  ASSERT_EQ(ex.open_rc, 0);
  EXPECT_STREQ(ex.info.protocol, "TLSv1.3");
  EXPECT_STREQ(ex.info.cipher, "TLS_AES_128_GCM_SHA256");
  EXPECT_STREQ(ex.info.peer_subject, "") << "a PSK handshake carries no certificate";
  EXPECT_NE(ex.reply.find("</HTML>"), std::string::npos);
}

}  // namespace
}  // namespace kora::test
