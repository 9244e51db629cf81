// Session files saved from connections between two SSL objects over a socket pair: names,
// contents and resumption.
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>

#include "file_bytes.h"
#include "kora_certgen.h"
#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_util.h"

namespace {

namespace fs = std::filesystem;
using kora::test::slurp;

const std::string kSessions = "/data/data_velto/.ssl/sessions/";
const std::string kSession1 = kSessions + "cred_1.session", kTimestamp1 = kSessions + "cred_1.timestamp";

struct Outcome {
  int client_rc, save_rc, empty_read_rc = 0;
  std::string recorded_cipher;
  ssl_conn_info_t info{};
  std::string saved;
};

// A server object with a self-signed certificate and a client object bound to "cred".
class ObjectPair : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    // A GLib check failing in the product (a null buffer handed on) fails the case.
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
    ASSERT_EQ(ssl_store_init(), 0);
    kora::certgen::CertSpec spec;
    spec.alt_names = {{GEN_DNS, "server.example"},
                      {GEN_IPADD, std::string("\x7f\x00\x00\x01", 4)},
                      {GEN_IPADD, std::string(15, '\0') + "\x01"}};
    server_cert_ = kora::certgen::make_self_signed(spec);
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_SERVER, &server_), 0);
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &client_), 0);
    ASSERT_EQ(SSL_CTX_use_certificate(ssl_get_obj_context(server_), server_cert_.cert.get()), 1);
    ASSERT_EQ(SSL_CTX_use_PrivateKey(ssl_get_obj_context(server_), server_cert_.key.get()), 1);
    ASSERT_EQ(ssl_obj_set_protocol_bounds(server_, GetParam(), GetParam()), 0);
    ASSERT_EQ(ssl_obj_set_protocol_bounds(client_, GetParam(), GetParam()), 0);
    ASSERT_EQ(ssl_obj_set_verify(client_, SSL_VERIFY_NONE), 0);
    ASSERT_EQ(SSL_set_cert_info(ssl_get_obj_context(client_), "cred"), 0);
  }

  // The server echoes one message; the client sends "ping" and reads the echo (under TLS 1.3
  // that read also takes in the session tickets), then saves its session, telling its path into
  // path_len bytes (or into no buffer).
  Outcome connect(size_t path_len = 512, bool want_path = true) {
    Outcome out;
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    std::thread server([&] {
      char buf[64];
      if (ssl_conn_open(server_, fds[1]) == 0) {
        ssl_conn_write(server_, buf, ssl_conn_read(server_, buf, sizeof buf));
        EXPECT_EQ(ssl_conn_read(server_, buf, sizeof buf), 0) << "the client's close notification";
      }
      ssl_conn_close(server_);
      ::close(fds[1]);
    });
    char echo[4] = {};
    if ((out.client_rc = ssl_conn_open(client_, fds[0])) == 0) {
      out.empty_read_rc = ssl_conn_read(client_, echo, 0);
      int index = -1;
      utility_get_ssl_ctxt(ssl_get_obj_context(client_), &index);
      out.recorded_cipher =
          g_ssl_ctxt[index].ciphersuite + std::string("/") + std::to_string(g_ssl_ctxt[index].protocol);
      EXPECT_EQ(ssl_conn_write(client_, "ping", 4), 4);
      EXPECT_EQ(ssl_conn_read(client_, echo, sizeof echo), 4);
    }
    EXPECT_EQ(ssl_conn_get_info(client_, &out.info), 0);
    EXPECT_EQ(ssl_conn_get_info(client_, nullptr), SSL_UTIL_ERR_INVALID);
    char path[512] = "none";
    out.save_rc = ssl_session_save(client_, want_path ? path : nullptr, path_len);
    out.saved = path;
    EXPECT_EQ((out.client_rc != 0 ? 0 : ssl_conn_shutdown(client_)) | ssl_conn_close(client_), 0);
    ::shutdown(fds[0], SHUT_RDWR);
    server.join();
    ::close(fds[0]);
    return out;
  }

  kora::certgen::Credential server_cert_;
  ssl_obj_hdl_t server_ = 0, client_ = 0;
};

TEST_P(ObjectPair, SavedSessionIsNamedAfterTheCredentialAndResumedNextTime) {
  const auto open_fds = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto fds_before = open_fds();
  EXPECT_EQ(ssl_obj_set_ciphers(client_, nullptr, "TLS_AES_128_GCM_SHA256:TLS_BOGUS"), -1)
      << "unknown suite ignored";
  ASSERT_EQ(ssl_obj_set_ciphers(client_, nullptr, "TLS_CHACHA20_POLY1305_SHA256"), 0);
  EXPECT_EQ(ssl_session_set_resume(client_, std::string(512, 's').c_str()), -2) << "path cut to fit";
  const Outcome first = connect();
  ASSERT_EQ(first.client_rc, 0);
  EXPECT_EQ(first.empty_read_rc, -2) << "a zero-length read reached SSL_read";
  EXPECT_EQ(first.recorded_cipher, std::string(first.info.cipher) + "/" + std::to_string(GetParam()));
  if (GetParam() == TLS1_3_VERSION) {
    EXPECT_STREQ(first.info.cipher, "TLS_CHACHA20_POLY1305_SHA256") << "TLS 1.3 suites not applied";
  }
  EXPECT_STREQ(first.info.protocol, GetParam() == TLS1_3_VERSION ? "TLSv1.3" : "TLSv1.2");
  EXPECT_EQ(first.info.session_reused, 0);
  EXPECT_STREQ(first.info.peer_alert, "") << "an alert noted where the peer sent none";
  ASSERT_EQ(first.save_rc, 0);
  EXPECT_EQ(first.saved, kSession1);
  EXPECT_EQ(fs::status(kTimestamp1).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_NE(slurp(kSession1).substr(0, 1), "\x30")
      << "the session (and its master secret) stored in the clear";
  session_store_t rec{};
  ASSERT_EQ(slurp(kTimestamp1).copy(reinterpret_cast<char*>(&rec), sizeof rec), sizeof rec);
  EXPECT_STREQ(rec.ciphersuite, first.info.cipher);
  EXPECT_EQ(rec.protocol, GetParam());
  EXPECT_LE(std::labs(static_cast<long>(rec.session_timestamp - std::time(nullptr))), 60L);

  for (int n = 2; n < 9999; ++n) {  // every number but the last taken by a stray file
    std::ofstream(kSessions + "cred_" + std::to_string(n) + ".timestamp") << "stray";
  }
  kora::test::LogCapture log;
  const Outcome second = connect(512, false);
  ASSERT_EQ(second.client_rc, 0);
  EXPECT_EQ(second.info.session_reused, 1) << "the saved session was not offered";
  EXPECT_TRUE(log.texts().empty()) << log.texts()[0];
  EXPECT_NE(slurp(kSessions + "cred_9999.session"), "") << "last free number not taken";
  EXPECT_EQ(slurp(kSessions + "cred_2.timestamp"), "stray") << "a stray file's number reused";

  // Offered up to the very second its lifetime ends (every number is taken now: it stays the one
  // offered), and not once padded past the 64 KiB a session may take.
  const std::string last = kSessions + "cred_9999";
  ASSERT_EQ(slurp(last + ".timestamp").copy(reinterpret_cast<char*>(&rec), sizeof rec), sizeof rec);
  const auto stamp = [&](time_t at) {
    rec.session_timestamp = at;
    std::ofstream(last + ".timestamp", std::ios::binary).write(reinterpret_cast<char*>(&rec), sizeof rec);
  };
  stamp(std::time(nullptr) - rec.lifetime - 2);
  EXPECT_EQ(connect().info.session_reused, 0) << "an expired session offered";
  EXPECT_TRUE(log.has("Saved session expired, full handshake\n", kora::test::kHigh));
  for (int tries = 0; tries < 3; ++tries) {
    const time_t now = std::time(nullptr);
    stamp(now - rec.lifetime);
    const int reused = connect().info.session_reused;
    if (std::time(nullptr) == now) {  // else the second turned during the handshake: try again
      EXPECT_EQ(reused, 1) << "a session dropped in the last second of its lifetime";
      break;
    }
  }
  stamp(std::time(nullptr));
  void* plain = nullptr;
  size_t size = 0;
  ASSERT_EQ(ssl_store_cert_read_decrypt_from_file((last + ".session").c_str(), &plain, &size), 0);
  std::string padded(static_cast<char*>(plain), size);
  std::free(plain);
  padded.resize(64 * 1024 + 1);
  ASSERT_EQ(ssl_store_cert_write_encrypt_to_file((last + ".session").c_str(), padded.data(), padded.size()),
            0);
  EXPECT_EQ(connect().info.session_reused, 0) << "a session file past 64 KiB offered";
  EXPECT_TRUE(log.has("Saved session not usable, full handshake\n", kora::test::kHigh));
  EXPECT_EQ(open_fds(), fds_before) << "a descriptor left open";

  // A disk with room for the session file but not for its timestamp keeps neither.
  ASSERT_EQ(::mount("tmpfs", kSessions.c_str(), "tmpfs", 0, "size=4k,mode=0700"), 0);
  EXPECT_EQ(connect().save_rc, SSL_UTIL_ERR_FAILED);
  EXPECT_TRUE(
      log.has("ssl_session_save: cannot write session files for cred (errno 28)\n", kora::test::kError));
  EXPECT_TRUE(fs::is_empty(kSessions)) << "a half-written session left";
}

// An alert OpenSSL has no text for is named by its number: a TLS 1.2 client that says it fell
// back, to a server that could do more, gets "inappropriate fallback" (86).
TEST_P(ObjectPair, AlertWithoutTextIsNamedByItsNumber) {
  SSL_CTX_set_mode(ssl_get_obj_context(client_), SSL_MODE_SEND_FALLBACK_SCSV);
  ASSERT_EQ(ssl_obj_set_protocol_bounds(client_, 0, TLS1_2_VERSION), 0);
  ASSERT_EQ(ssl_obj_set_protocol_bounds(server_, 0, 0), 0);
  EXPECT_STREQ(connect().info.peer_alert, "alert 86");
}

// A peer that hangs up without a close notification makes the next read a failure, said with
// its SSL error (an unexpected end of the stream is SSL_ERROR_SSL).
TEST_P(ObjectPair, ReadEndedWithoutCloseNotificationFailsAndSaysSo) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  std::thread server([&] {
    EXPECT_EQ(ssl_conn_open(server_, fds[1]), 0);
    EXPECT_EQ(ssl_conn_await_peer(server_, 0), 1) << "nothing came from the client";
    ::shutdown(fds[1], SHUT_WR);  // still takes in the alert the client sends on the way out
  });
  EXPECT_EQ(ssl_conn_open(client_, fds[0]), 0);
  server.join();
  int client = -1, server_index = -1;
  utility_get_ssl_ctxt(ssl_get_obj_context(client_), &client);
  utility_get_ssl_ctxt(ssl_get_obj_context(server_), &server_index);
  EXPECT_EQ(g_ssl_ctxt[client].conn_hndl + g_ssl_ctxt[server_index].conn_hndl, 3u)
      << "connections not numbered 1, 2";
  kora::test::LogCapture log;
  char buf[8];
  EXPECT_EQ(ssl_conn_read(client_, buf, sizeof buf), SSL_UTIL_ERR_FAILED);
  EXPECT_EQ(log.texts().empty() ? "" : log.texts()[0], "ssl_conn_read: read failed, SSL error 1\n");
  EXPECT_EQ(ssl_conn_write(client_, nullptr, 1), SSL_UTIL_ERR_INVALID) << "a null buffer reached SSL_write";
  EXPECT_EQ(::close(fds[0]) | ::close(fds[1]) | ssl_conn_close(client_) | ssl_conn_close(server_), 0);
}

// The server's certificate is trusted; only the names it holds may pass, and only a host name
// goes out as SNI. Saved sessions are not offered: one would be resumed without a new check.
std::string g_sni;
TEST_P(ObjectPair, ServerNameCheckedAgainstTheCertificate) {
  ASSERT_EQ(
      X509_STORE_add_cert(SSL_CTX_get_cert_store(ssl_get_obj_context(client_)), server_cert_.cert.get()), 1);
  ASSERT_EQ(ssl_obj_set_verify(client_, SSL_VERIFY_PEER), 0);
  SSL_CTX_set_tlsext_servername_callback(
      ssl_get_obj_context(server_), +[](SSL* ssl, int*, void*) {
        const char* sni = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
        g_sni = sni != nullptr ? sni : "";
        return SSL_TLSEXT_ERR_OK;
      });
  for (const auto& [name, accepted, sni] :
       {std::tuple{"other.example", false, "other.example"}, std::tuple{"192.0.2.1", false, ""},
        std::tuple{"127.0.0.1", true, ""}, std::tuple{"::1", true, ""},
        std::tuple{"server.example", true, "server.example"}}) {
    ASSERT_EQ(ssl_obj_set_server_name(client_, name), 0);
    g_sni = "none";
    ASSERT_EQ(ssl_session_set_resume(client_, ""), 0);
    kora::test::LogCapture log;
    const Outcome out = connect(1);  // room for the terminator only
    const std::string refused = "ssl_session_save: no resumable session on handle " + std::to_string(client_);
    EXPECT_EQ(log.has(refused + "\n", kora::test::kError), !accepted) << name;
    EXPECT_EQ(out.client_rc == 0, accepted) << name;
    EXPECT_EQ(out.saved, accepted ? "" : "none") << name;
    EXPECT_EQ(g_sni, sni) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Versions, ObjectPair, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& p) { return p.param == TLS1_3_VERSION ? "Tls13" : "Tls12"; });

}  // namespace
