// Connections between two SSL objects of the layer over a socket pair, and the session files
// saved from them: names, contents, resumption, and the cases where a saved session is skipped.
#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>

#include "kora_certgen.h"
#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_util.h"

namespace {

using kora::test::kError;
using kora::test::kHigh;
using kora::test::LogCapture;

const std::string kSessions = "/data/data_velto/.ssl/sessions/";
const std::string kSession1 = kSessions + "cred_1.session", kTimestamp1 = kSessions + "cred_1.timestamp";

struct Outcome {
  int client_rc = -99, server_rc = -99, save_rc = -99;
  ssl_conn_info_t info{};
  std::string saved;
};

std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void put_contents(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

session_store_t read_record(const std::string& path) {
  session_store_t rec{};
  const std::string bytes = contents(path);
  EXPECT_EQ(bytes.size(), sizeof rec) << path;
  bytes.copy(reinterpret_cast<char*>(&rec), sizeof rec);
  return rec;
}

class ObjectPair : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    ASSERT_EQ(ssl_store_init(), 0);
    using namespace kora::certgen;
    CertSpec ca_spec;
    ca_spec.subject = {{"CN", "pair-ca"}};
    ca_spec.is_ca = true;
    ca_ = make_self_signed(ca_spec);
    CertSpec server_spec;
    server_spec.subject = {{"CN", "server.test"}};
    server_spec.alt_names = {{GEN_DNS, "server.test"}};
    const Credential server = make_signed(server_spec, ca_);
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_SERVER, &server_), 0);
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &client_), 0);
    SSL_CTX* sctx = ssl_get_obj_context(server_);
    ASSERT_EQ(SSL_CTX_use_certificate(sctx, server.cert.get()), 1);
    ASSERT_EQ(SSL_CTX_use_PrivateKey(sctx, server.key.get()), 1);
    for (ssl_obj_hdl_t hdl : {server_, client_}) {
      ASSERT_EQ(ssl_obj_set_protocol_bounds(hdl, GetParam(), GetParam()), 0);
    }
  }
  void TearDown() override {
    ssl_obj_free(client_);
    ssl_obj_free(server_);
  }

  void trust_ca(const char* name = nullptr) {
    ASSERT_EQ(X509_STORE_add_cert(SSL_CTX_get_cert_store(ssl_get_obj_context(client_)), ca_.cert.get()), 1);
    ASSERT_TRUE(name == nullptr || SSL_set_cert_info(ssl_get_obj_context(client_), name) == 0);
  }

  // One connection: the server echoes one message; the client sends "ping", reads the echo
  // (under TLS 1.3 that read also takes in the session tickets), then saves its session if asked.
  Outcome connect(bool save) {
    Outcome out;
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    std::thread server([&] {
      out.server_rc = ssl_conn_open(server_, fds[1]);
      char buf[64];
      if (out.server_rc == 0) {
        const int n = ssl_conn_read(server_, buf, sizeof buf);
        if (n > 0) {
          ssl_conn_write(server_, buf, n);
        }
        ssl_conn_read(server_, buf, sizeof buf);  // until the client's close notification
      }
      ssl_conn_close(server_);
      ::close(fds[1]);
    });
    out.client_rc = ssl_conn_open(client_, fds[0]);
    if (out.client_rc == 0) {
      char echo[4] = {};
      EXPECT_EQ(ssl_conn_write(client_, "ping", 4), 4);
      EXPECT_EQ(ssl_conn_read(client_, echo, sizeof echo), 4);
      EXPECT_EQ(std::string(echo, 4), "ping");
    }
    EXPECT_EQ(ssl_conn_get_info(client_, &out.info), 0);
    if (save) {
      char path[512] = {};
      out.save_rc = ssl_session_save(client_, path, sizeof path);
      out.saved = path;
    }
    EXPECT_TRUE(out.client_rc != 0 || ssl_conn_shutdown(client_) == 0);
    EXPECT_EQ(ssl_conn_close(client_), 0);
    ::shutdown(fds[0], SHUT_RDWR);
    server.join();
    ::close(fds[0]);
    return out;
  }

  kora::certgen::Credential ca_;
  ssl_obj_hdl_t server_ = 0, client_ = 0;
};

TEST_P(ObjectPair, VerificationFailuresEndTheHandshakeWithTheReason) {
  for (const auto& [trust, server_name, verify_result] :
       {std::tuple{false, "", X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
        std::tuple{true, "other.test", X509_V_ERR_HOSTNAME_MISMATCH}}) {
    if (trust) {
      trust_ca();
    }
    ASSERT_EQ(ssl_obj_set_server_name(client_, *server_name ? server_name : nullptr), 0);
    LogCapture log;
    const Outcome out = connect(false);
    EXPECT_EQ(out.client_rc, -1) << verify_result;
    EXPECT_NE(out.server_rc, 0) << verify_result;
    EXPECT_EQ(out.info.verify_result, verify_result);
    EXPECT_TRUE(log.has(
        "ssl_conn_open: handshake failed, verify result " + std::to_string(verify_result) + "\n", kError));
  }
}

TEST_P(ObjectPair, SavedSessionIsNamedAfterTheCredentialAndResumedNextTime) {
  trust_ca("cred");
  ASSERT_EQ(ssl_obj_set_server_name(client_, "server.test"), 0);
  const Outcome first = connect(true);
  ASSERT_EQ(first.client_rc, 0);
  EXPECT_EQ(first.server_rc, 0);
  EXPECT_STREQ(first.info.protocol, GetParam() == TLS1_3_VERSION ? "TLSv1.3" : "TLSv1.2");
  EXPECT_STREQ(first.info.peer_subject, "/CN=server.test");
  EXPECT_EQ(first.info.verify_result, X509_V_OK);
  EXPECT_EQ(first.info.session_reused, 0);
  ASSERT_EQ(first.save_rc, 0);
  EXPECT_EQ(first.saved, kSession1);
  EXPECT_NE(contents(kSession1).substr(0, 1), "\x30")
      << "the session (and its master secret) stored in the clear";
  const session_store_t rec = read_record(kTimestamp1);
  EXPECT_STREQ(rec.ciphersuite, first.info.cipher);
  EXPECT_EQ(rec.protocol, GetParam());
  EXPECT_GT(rec.lifetime, 0);
  EXPECT_LE(std::labs(static_cast<long>(rec.session_timestamp - std::time(nullptr))), 60L);

  const Outcome second = connect(true);
  ASSERT_EQ(second.client_rc, 0);
  EXPECT_EQ(second.info.session_reused, 1) << "the saved session was not offered";
  EXPECT_EQ(second.saved, kSessions + "cred_2.session") << "first free number not taken";
  int index = -1;
  ASSERT_EQ(utility_get_ssl_ctxt(ssl_get_obj_context(client_), &index), 0);
  EXPECT_STREQ(g_ssl_ctxt[index].sess, second.saved.c_str());
  EXPECT_STREQ(g_ssl_ctxt[index].ciphersuite, second.info.cipher);
  EXPECT_EQ(g_ssl_ctxt[index].protocol, GetParam());
  EXPECT_EQ(g_ssl_ctxt[index].conn_hndl, 0u) << "closed connection still in the record";
}

TEST_P(ObjectPair, UnusableSavedSessionGivesAFullHandshake) {
  trust_ca("cred");
  ASSERT_EQ(connect(true).save_rc, 0);
  const std::string saved_session = contents(kSession1), saved_timestamp = contents(kTimestamp1);
  session_store_t expired = read_record(kTimestamp1);
  expired.session_timestamp = 1000;
  const std::string expired_bytes(reinterpret_cast<const char*>(&expired), sizeof expired);
  enum Spoil { kExpired, kGarbled, kRemoved };
  for (const Spoil spoil : {kExpired, kGarbled, kRemoved}) {
    put_contents(kSession1, spoil == kGarbled ? "junk" : saved_session);
    put_contents(kTimestamp1, spoil == kExpired ? expired_bytes : saved_timestamp);
    if (spoil == kRemoved) {
      std::remove(kSession1.c_str());
      std::remove(kTimestamp1.c_str());
    }
    LogCapture log;
    const Outcome out = connect(false);
    EXPECT_EQ(out.client_rc, 0) << spoil;
    EXPECT_EQ(out.info.session_reused, 0) << spoil;
    EXPECT_TRUE(log.has(spoil == kExpired ? "Saved session expired, full handshake\n"
                                          : "Saved session not usable, full handshake\n",
                        kHigh))
        << spoil;
  }
}

TEST_P(ObjectPair, SaveRefusedWithoutConnectionNameOrDirectory) {
  trust_ca();
  EXPECT_EQ(ssl_session_save(client_, nullptr, 0), -2) << "no connection";
  EXPECT_EQ(connect(true).save_rc, -2) << "no credential name";
  ASSERT_EQ(SSL_set_cert_info(ssl_get_obj_context(client_), "cred"), 0);
  ASSERT_EQ(::rmdir(kSessions.c_str()), 0);
  EXPECT_EQ(connect(true).save_rc, -1) << "no sessions directory";
}

INSTANTIATE_TEST_SUITE_P(Versions, ObjectPair, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& p) { return p.param == TLS1_3_VERSION ? "Tls13" : "Tls12"; });

TEST(ObjectSettings, RefusedValuesAndUnknownHandles) {
  ssl_obj_hdl_t hdl = 0;
  ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl), 0);
  const ssl_obj_hdl_t unknown = hdl + 100;
  const std::string long_name(256, 'h');
  const struct {
    const char* what;
    int rc, expected;
  } rows[] = {
      {"bounds: unknown handle", ssl_obj_set_protocol_bounds(unknown, 0, 0), -2},
      {"bounds: TLS 1.1", ssl_obj_set_protocol_bounds(hdl, TLS1_1_VERSION, 0), -2},
      {"bounds: min above max", ssl_obj_set_protocol_bounds(hdl, TLS1_3_VERSION, TLS1_2_VERSION), -2},
      {"bounds: open ended", ssl_obj_set_protocol_bounds(hdl, TLS1_3_VERSION, 0), 0},
      {"ciphers: unknown handle", ssl_obj_set_ciphers(unknown, nullptr, nullptr), -2},
      {"ciphers: no such list", ssl_obj_set_ciphers(hdl, "NO-SUCH-CIPHER", nullptr), -1},
      {"ciphers: no such suite", ssl_obj_set_ciphers(hdl, nullptr, "TLS_NO_SUCH"), -1},
      {"ciphers: valid", ssl_obj_set_ciphers(hdl, "PSK-AES128-GCM-SHA256", "TLS_AES_128_GCM_SHA256"), 0},
      {"verify: unknown handle", ssl_obj_set_verify(unknown, SSL_VERIFY_NONE), -2},
      {"verify: stray bits", ssl_obj_set_verify(hdl, 0x40), -2},
      {"verify: fail without peer", ssl_obj_set_verify(hdl, SSL_VERIFY_FAIL_IF_NO_PEER_CERT), -2},
      {"name: unknown handle", ssl_obj_set_server_name(unknown, "a"), -2},
      {"name: too long", ssl_obj_set_server_name(hdl, long_name.c_str()), -2},
      {"resume: unknown handle", ssl_session_set_resume(unknown, "x"), -2},
      {"open: bad socket", ssl_conn_open(hdl, -1), -2},
      {"read: no connection", ssl_conn_read(hdl, &hdl, 1), -2},
      {"write: no connection", ssl_conn_write(hdl, "x", 1), -2},
      {"shutdown: no connection", ssl_conn_shutdown(hdl), -2},
      {"close: no connection", ssl_conn_close(hdl), -2},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.rc, row.expected) << row.what;
  }
  EXPECT_EQ(SSL_CTX_get_min_proto_version(ssl_get_obj_context(hdl)), TLS1_3_VERSION);
}

}  // namespace
