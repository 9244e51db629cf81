// The layer as a TLS client against "openssl s_server": a client certificate, a CA list and
// PSK tables, each stored and loaded through the store.
#include "interop_fixture.h"

namespace kora::test {
namespace {

using kora::certgen::Credential;

class ClientCertificate : public Interop, public ::testing::WithParamInterface<int> {
 protected:
  // A client that verifies the server with the stored CA list, over one protocol version.
  ssl_obj_hdl_t verifying_client() {
    const ssl_obj_hdl_t hdl = object(SSL_OBJ_ROLE_CLIENT);
    store("interop-ca", KORA_NET_SSL_CA_LIST_E, ca_.cert_pem());
    EXPECT_EQ(SSL_cert_load(hdl, KORA_NET_SSL_CA_LIST_E, "interop-ca"), 0);
    EXPECT_EQ(ssl_obj_set_protocol_bounds(hdl, GetParam(), GetParam()), 0);
    EXPECT_EQ(ssl_obj_set_server_name(hdl, "server.test"), 0);
    return hdl;
  }
  std::vector<std::string> demanding_server_args() {
    auto args = server_cert_args(server_);
    args.insert(args.end(),
                {"-Verify", "1", "-CAfile", tool_file("ca.pem", ca_.cert_pem()), version_flag(GetParam())});
    return args;
  }
};

TEST_P(ClientCertificate, StoredCertificateAndKeyAreAcceptedByAServerThatDemandsOne) {
  CertSpec spec;
  spec.subject = {{"CN", "dev-client"}};
  const Credential dev = certgen::make_signed(spec, ca_);
  store("dev", KORA_NET_SSL_CERTIFICATE_E, dev.cert_pem());
  store("dev", KORA_NET_SSL_CERTIFICATE_E, dev.key_pem(), true);
  const ssl_obj_hdl_t hdl = verifying_client();
  ASSERT_EQ(SSL_cert_load(hdl, KORA_NET_SSL_CERTIFICATE_E, "dev"), 0);

  int port = 0;
  auto server = s_server(demanding_server_args(), &port);
  ASSERT_NE(server, nullptr);
  const Exchange ex = request(hdl, port);
  ASSERT_EQ(ex.open_rc, 0);
  EXPECT_EQ(ex.info.verify_result, X509_V_OK);
  EXPECT_STREQ(ex.info.peer_subject, "/CN=server.test");
  EXPECT_NE(ex.reply.find("Subject: CN=dev-client"), std::string::npos)
      << "server did not see our certificate\n"
      << ex.reply;
  EXPECT_EQ(server->wait_exit(10s), 0) << server->output();
}

TEST_P(ClientCertificate, MissingCertificateIsRefusedAtHandshakeOrOnTheFirstRead) {
  const ssl_obj_hdl_t hdl = verifying_client();
  int port = 0;
  auto server = s_server(demanding_server_args(), &port);
  ASSERT_NE(server, nullptr);
  const Exchange ex = request(hdl, port);
  if (GetParam() == TLS1_3_VERSION) {
    // The client's side of the handshake is complete before the server checks for a certificate.
    EXPECT_EQ(ex.open_rc, 0);
    EXPECT_EQ(ex.read_rc, -1) << ex.reply;
  } else {
    EXPECT_EQ(ex.open_rc, -1);
  }
  EXPECT_EQ(ex.reply.find("</HTML>"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Versions, ClientCertificate, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& p) { return p.param == TLS1_3_VERSION ? "Tls13" : "Tls12"; });

TEST_F(Interop, StoredCaListAcceptsItsServerAndRefusesAnotherCasCleanly) {
  CertSpec other_ca_spec;
  other_ca_spec.subject = {{"CN", "other-ca"}};
  other_ca_spec.is_ca = true;
  const Credential other_ca = certgen::make_self_signed(other_ca_spec);
  CertSpec impostor_spec;
  impostor_spec.subject = {{"CN", "server.test"}};
  const Credential impostor = certgen::make_signed(impostor_spec, other_ca);

  store("trusted", KORA_NET_SSL_CA_LIST_E, ca_.cert_pem());
  struct Row {
    const char* what;
    const Credential* presented;
    int open_rc;
    long verify_result;
  };
  for (const Row& row :
       {Row{"signed by the stored CA", &server_, 0, X509_V_OK},
        Row{"signed by another CA", &impostor, -1, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}}) {
    const ssl_obj_hdl_t hdl = object(SSL_OBJ_ROLE_CLIENT);
    ASSERT_EQ(SSL_cert_load(hdl, KORA_NET_SSL_CA_LIST_E, "trusted"), 0);
    int port = 0;
    auto server = s_server(server_cert_args(*row.presented), &port);
    ASSERT_NE(server, nullptr);
    const Exchange ex = request(hdl, port);
    EXPECT_EQ(ex.open_rc, row.open_rc) << row.what;
    EXPECT_EQ(ex.info.verify_result, row.verify_result) << row.what;
    EXPECT_EQ(ex.reply.empty(), row.open_rc != 0) << row.what;
    EXPECT_GE(server->wait_exit(10s), 0) << row.what << ": server did not end\n" << server->output();
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
  struct Row {
    const char* hint;
    const std::string* key;  // the server's key for that identity
    int open_rc;
  };
  for (const Row& row : {Row{"beta", &kPskEntries[1].second, 0}, Row{"gamma", &kPskEntries[2].second, 0},
                         Row{"delta", &kPskEntries[0].second, -1}}) {
    const ssl_obj_hdl_t hdl = psk_client(TLS1_2_VERSION, "PSK-AES128-GCM-SHA256", nullptr);
    int port = 0;
    auto server = s_server({"-nocert", "-tls1_2", "-cipher", "PSK-AES128-GCM-SHA256", "-psk", hex(*row.key),
                            "-psk_hint", row.hint, "-psk_identity", row.hint},
                           &port);
    ASSERT_NE(server, nullptr);
    const Exchange ex = request(hdl, port);
    EXPECT_EQ(ex.open_rc, row.open_rc) << row.hint;
    if (row.open_rc == 0) {
      EXPECT_STREQ(ex.info.cipher, "PSK-AES128-GCM-SHA256");
      EXPECT_NE(ex.reply.find("</HTML>"), std::string::npos) << row.hint;
    }
    EXPECT_GE(server->wait_exit(10s), 0) << row.hint << "\n" << server->output();
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
