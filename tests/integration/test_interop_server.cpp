// The layer as a TLS server for "openssl s_client", and saved sessions: resumed against
// "openssl s_server" and removed with the credential they are bound to.
#include <poll.h>
#include <sys/socket.h>

#include "interop_fixture.h"

namespace kora::test {
namespace {

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

class Versions : public Interop, public ::testing::WithParamInterface<int> {};

TEST_P(Versions, ServerObjectWithStoredCertificateServesSClient) {
  store("srv", KORA_NET_SSL_CERTIFICATE_E, server_.cert_pem());
  store("srv", KORA_NET_SSL_CERTIFICATE_E, server_.key_pem(), true);
  const ssl_obj_hdl_t hdl = object(SSL_OBJ_ROLE_SERVER);
  ASSERT_EQ(SSL_cert_load(hdl, KORA_NET_SSL_CERTIFICATE_E, "srv"), 0);
  ASSERT_EQ(ssl_obj_set_protocol_bounds(hdl, GetParam(), GetParam()), 0);
  int port = 0;
  const int listener = listen_loopback(&port);
  ASSERT_GE(listener, 0);
  std::string why;
  auto client = Subprocess::start({"openssl", "s_client", "-connect", "127.0.0.1:" + std::to_string(port),
                                   "-CAfile", tool_file("ca.pem", ca_.cert_pem()), "-verify_return_error",
                                   "-verify_hostname", "server.test", "-servername", "server.test"},
                                  &why);
  ASSERT_NE(client, nullptr) << why;
  pollfd pfd{listener, POLLIN, 0};
  const int fd = ::poll(&pfd, 1, 10000) == 1 ? ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
  ::close(listener);
  ASSERT_GE(fd, 0) << client->output();

  ASSERT_EQ(ssl_conn_open(hdl, fd), 0);
  ssl_conn_info_t info{};
  ASSERT_EQ(ssl_conn_get_info(hdl, &info), 0);
  EXPECT_STREQ(info.protocol, GetParam() == TLS1_3_VERSION ? "TLSv1.3" : "TLSv1.2");
  EXPECT_STREQ(info.peer_subject, "") << "s_client sent no certificate";
  const std::string greeting = "hello from the store\n";
  EXPECT_EQ(ssl_conn_write(hdl, greeting.data(), static_cast<int>(greeting.size())),
            static_cast<int>(greeting.size()));
  EXPECT_FALSE(client->wait_for_line("hello from the store", 10s).empty()) << client->output();
  client->close_stdin();  // s_client ends its side with a close notification
  char buf[64];
  EXPECT_EQ(ssl_conn_read(hdl, buf, sizeof buf), 0);
  ssl_conn_close(hdl);
  ::close(fd);
  EXPECT_EQ(client->wait_exit(10s), 0) << client->output();
  EXPECT_NE(client->output().find("Verify return code: 0 (ok)"), std::string::npos) << client->output();
}

TEST_P(Versions, SessionIsSavedResumedAndRemovedWithItsCredential) {
  const Credential dev = issue("dev-client", &ca_);
  store("dev", KORA_NET_SSL_CERTIFICATE_E, dev.cert_pem());
  store("dev", KORA_NET_SSL_CERTIFICATE_E, dev.key_pem(), true);
  store("interop-ca", KORA_NET_SSL_CA_LIST_E, ca_.cert_pem());
  const ssl_obj_hdl_t hdl = object(SSL_OBJ_ROLE_CLIENT);
  ASSERT_EQ(SSL_cert_load(hdl, KORA_NET_SSL_CA_LIST_E, "interop-ca"), 0);
  ASSERT_EQ(SSL_cert_load(hdl, KORA_NET_SSL_CERTIFICATE_E, "dev"), 0);  // names the object "dev"
  ASSERT_EQ(ssl_obj_set_protocol_bounds(hdl, GetParam(), GetParam()), 0);
  int port = 0;
  auto args = server_cert_args(server_);
  args.push_back(version_flag(GetParam()));
  auto server = s_server(args, &port, 2);
  ASSERT_NE(server, nullptr);
  char saved[512] = {};
  int save_rc = -99;
  const Exchange first = request(hdl, port, [&] { save_rc = ssl_session_save(hdl, saved, sizeof saved); });
  ASSERT_EQ(first.open_rc, 0);
  ASSERT_EQ(save_rc, 0);
  const std::string session = "/data/data_velto/.ssl/sessions/dev_1.session";
  const std::string timestamp = "/data/data_velto/.ssl/sessions/dev_1.timestamp";
  EXPECT_EQ(saved, session);
  ASSERT_TRUE(exists(session) && exists(timestamp));

  const Exchange second = request(hdl, port);
  ASSERT_EQ(second.open_rc, 0);
  EXPECT_EQ(second.info.session_reused, 1) << "the saved session was not resumed";
  EXPECT_EQ(server->wait_exit(10s), 0) << server->output();
  ASSERT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, nullptr, 0, false), 0);
  EXPECT_FALSE(exists(session) || exists(timestamp));
}

INSTANTIATE_TEST_SUITE_P(Tls, Versions, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION), kVersionName);

}  // namespace
}  // namespace kora::test
