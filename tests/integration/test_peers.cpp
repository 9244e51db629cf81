// kora-ssl-store against the TLS peers users deploy, on 127.0.0.1: a GnuTLS server and client, an
// MQTT broker, a TLS tunnel, curl. Every case checks both sides: what the tool says and what the
// peer logged. Certificates chain to a root through an intermediate that only the stored chain
// carries: each side trusts the root alone.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <regex>

#include "kora_certgen.h"
#include "subprocess.h"

namespace kora::test {
namespace {

using namespace std::chrono_literals;

// A peer program: its command line and config file ({port} and {in} replaced), the text it logs
// once it listens (empty for a client), and the text it logs for this case's outcome.
struct Peer {
  std::vector<std::string> argv;
  const char* config;
  const char* ready;
  const char* says;
};

struct Case {
  const char* label;
  Peer peer;
  const char* ours;  // our command, run as client against a peer server or as the server for a peer client
  int exit_code;
  const char* we_say;
};
void PrintTo(const Case& c, std::ostream* os) { *os << c.label; }

const std::vector<std::string> kGnutlsCert = {"gnutls-serv",
                                              "-p",
                                              "{port}",
                                              "--x509certfile",
                                              "{in}/srv.pem",
                                              "--x509keyfile",
                                              "{in}/srv.key",
                                              "--require-client-cert",
                                              "--verify-client-cert",
                                              "--x509cafile"};
const std::vector<std::string> kGnutlsPsk = {"gnutls-serv",
                                             "-p",
                                             "{port}",
                                             "--pskpasswd",
                                             "{in}/beta.psk",
                                             "--priority",
                                             "NORMAL:+PSK:+ECDHE-PSK:+DHE-PSK"};
const std::vector<std::string> kGnutlsCli = {
    "gnutls-cli",     "-p",           "{port}",        "--x509cafile", "{in}/root.pem",
    "--x509certfile", "{in}/dev.pem", "--x509keyfile", "{in}/dev.key", "127.0.0.1",
    "--priority"};
const std::vector<std::string> kCurl = {"curl",          "-sS",          "--cacert",
                                        "{in}/root.pem", "--cert",       "{in}/dev.pem",
                                        "--key",         "{in}/dev.key", "https://127.0.0.1:{port}/",
                                        "--tls-max"};
const std::vector<std::string> kMosquitto = {"mosquitto", "-c", "{in}/peer.conf"};
const std::vector<std::string> kStunnel = {"stunnel4", "{in}/peer.conf"};
constexpr char kMosquittoCert[] =
    "user root\nlistener {port} 127.0.0.1\ncafile {in}/root.pem\ncertfile {in}/srv.pem\nkeyfile {in}/srv.key\n"
    "require_certificate true\nlog_dest stderr\nlog_type all\n";
constexpr char kMosquittoPsk[] =
    "user root\nlistener {port} 127.0.0.1\npsk_hint broker-hint\npsk_file {in}/beta.psk\nlog_dest stderr\n"
    "log_type all\n";
constexpr char kStunnelConf[] =
    "foreground = yes\npid =\ndebug = info\n[svc]\naccept = 127.0.0.1:{port}\nconnect = 127.0.0.1:1\n"
    "cert = {in}/srv.pem\nkey = {in}/srv.key\nCAfile = {in}/root.pem\nverifyChain = yes\nrequireCert = yes\n";
constexpr char kGnutlsReady[] = "Server listening on IPv4";
constexpr char kServe[] = "serve {port} --cert srv --ca root --once";

std::vector<std::string> with(std::vector<std::string> argv, std::initializer_list<const char*> more) {
  argv.insert(argv.end(), more.begin(), more.end());
  return argv;
}

const Case kCases[] = {
    {"gnutls_server_trusts_our_chain_tls12",
     {with(kGnutlsCert, {"{in}/root.pem", "--priority", "NORMAL:-VERS-ALL:+VERS-TLS1.2"}), nullptr,
      kGnutlsReady, "Status: The certificate is trusted"},
     "connect 127.0.0.1:{port} --cert dev --ca root",
     0,
     "verification:  ok"},
    {"gnutls_server_trusts_our_chain_tls13",
     {with(kGnutlsCert, {"{in}/root.pem", "--priority", "NORMAL:-VERS-ALL:+VERS-TLS1.3"}), nullptr,
      kGnutlsReady, "Status: The certificate is trusted"},
     "connect 127.0.0.1:{port} --cert dev --ca root",
     0,
     "protocol:      TLSv1.3"},
    {"gnutls_server_rejects_our_certificate_tls12",
     {with(kGnutlsCert, {"{in}/other.pem", "--priority", "NORMAL:-VERS-ALL:+VERS-TLS1.2"}), nullptr,
      kGnutlsReady, "Error in handshake"},
     "connect 127.0.0.1:{port} --cert dev --ca root",
     1,
     "the server sent alert"},
    {"gnutls_server_rejects_our_certificate_after_tls13_handshake",
     {with(kGnutlsCert, {"{in}/other.pem", "--priority", "NORMAL:-VERS-ALL:+VERS-TLS1.3"}), nullptr,
      kGnutlsReady, "Error in handshake"},
     "connect 127.0.0.1:{port} --cert dev --ca root",
     1,
     "refused our client certificate after the handshake"},
    {"server_certificate_of_another_host_refused",
     {with(kGnutlsCert, {"{in}/root.pem"}), nullptr, kGnutlsReady, "Error in handshake"},
     "connect localhost:{port} --cert dev --ca root",
     1,
     "hostname mismatch"},
    {"server_certificate_without_our_ip_refused",
     {with(kGnutlsCert, {"{in}/root.pem"}), nullptr, kGnutlsReady, "Error in handshake"},
     "connect 127.0.0.2:{port} --cert dev --ca root",
     1,
     "IP address mismatch"},
    {"gnutls_psk_identity_chosen_over_hint_tls12",
     {with(kGnutlsPsk, {"--pskhint", "broker-hint"}), nullptr, kGnutlsReady, "Connected as 'beta'"},
     "connect 127.0.0.1:{port} --psk tab --psk-identity beta --tls1.2",
     0,
     "cipher:        DHE-PSK"},
    {"gnutls_psk_hint_matching_no_identity_explained_tls12",
     {with(kGnutlsPsk, {"--pskhint", "broker-hint"}), nullptr, kGnutlsReady, "Handshake failed"},
     "connect 127.0.0.1:{port} --psk tab --tls1.2",
     1,
     "give --psk-identity ID"},
    {"gnutls_psk_without_hint_tls12",
     {kGnutlsPsk, nullptr, kGnutlsReady, "Connected as 'beta'"},
     "connect 127.0.0.1:{port} --psk tab --psk-identity beta --tls1.2",
     0,
     "not applicable (PSK)"},
    {"gnutls_psk_identity_chosen_tls13",
     {kGnutlsPsk, nullptr, kGnutlsReady, "Connected as 'beta'"},
     "connect 127.0.0.1:{port} --psk tab --psk-identity beta --tls1.3",
     0,
     "protocol:      TLSv1.3"},
    {"mosquitto_certificate_listener_accepts_our_chain",
     {kMosquitto, kMosquittoCert, " running", "closed its connection"},
     "connect 127.0.0.1:{port} --cert dev --ca root",
     0,
     "verification:  ok"},
    {"mosquitto_certificate_listener_refusal_seen_after_tls13_handshake",
     {kMosquitto, kMosquittoCert, " running", "peer did not return a certificate"},
     "connect 127.0.0.1:{port} --ca root --tls1.3",
     1,
     "alert 'certificate required'"},
    {"mosquitto_psk_listener_with_hint_tls12",
     {kMosquitto, kMosquittoPsk, " running", "closed its connection"},
     "connect 127.0.0.1:{port} --psk tab --psk-identity beta --tls1.2",
     0,
     "cipher:        DHE-PSK"},
    {"mosquitto_psk_listener_tls13",
     {kMosquitto, kMosquittoPsk, " running", "closed its connection"},
     "connect 127.0.0.1:{port} --psk tab --psk-identity beta --tls1.3",
     0,
     "protocol:      TLSv1.3"},
    {"stunnel_verifies_our_chain",
     {kStunnel, kStunnelConf, "Accepting new connections", "Certificate accepted at depth=0: CN=dev"},
     "connect 127.0.0.1:{port} --cert dev --ca root --tls1.2",
     0,
     "verification:  ok"},
    {"stunnel_requires_a_client_certificate",
     {kStunnel, kStunnelConf, "Accepting new connections", "peer did not return a certificate"},
     "connect 127.0.0.1:{port} --ca root --tls1.2",
     1,
     "the server sent alert"},
    {"gnutls_client_trusts_served_chain_tls12",
     {with(kGnutlsCli, {"NORMAL:-VERS-ALL:+VERS-TLS1.2"}), nullptr, "",
      "hello from kora-ssl-store serve (TLSv1.2"},
     kServe,
     0,
     "peer subject:  /CN=dev"},
    {"gnutls_client_trusts_served_chain_tls13",
     {with(kGnutlsCli, {"NORMAL:-VERS-ALL:+VERS-TLS1.3"}), nullptr, "",
      "hello from kora-ssl-store serve (TLSv1.3"},
     kServe,
     0,
     "verification:  ok"},
    {"curl_gets_the_served_line_tls12",
     {with(kCurl, {"1.2"}), nullptr, "", "hello from kora-ssl-store serve (TLSv1.2"},
     kServe,
     0,
     "verification:  ok"},
    {"curl_gets_the_served_line_tls13",
     {with(kCurl, {"1.3"}), nullptr, "", "hello from kora-ssl-store serve (TLSv1.3"},
     kServe,
     0,
     "verification:  ok"},
};

std::string fill(const std::string& text, int port) {
  return std::regex_replace(std::regex_replace(text, std::regex("\\{port\\}"), std::to_string(port)),
                            std::regex("\\{in\\}"), "/data/in");
}

// A program on a port that was free: the probing socket stays bound until just before the start,
// and a program that does not get to `ready` (another process took the port) is started again
// on a new one. Peers run under "timeout", in case this process dies first.
std::unique_ptr<Subprocess> start_listening(const std::function<std::vector<std::string>(int)>& argv_for,
                                            const std::string& ready, int* port) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    const int probe = listen_loopback(port);
    ::close(probe);
    std::string why;
    auto child = Subprocess::start(argv_for(*port), &why);
    if (child && !child->wait_for_line(ready, 20s).empty()) {
      return child;
    }
    ADD_FAILURE_AT(__FILE__, __LINE__)
        << "attempt " << attempt << ": " << why << (child ? child->output() : "");
  }
  return nullptr;
}

std::vector<std::string> as_peer(const Peer& peer, int port) {
  std::vector<std::string> argv = {"timeout", "-s", "KILL", "60", "stdbuf", "-oL", "-eL"};
  for (const auto& w : peer.argv) {
    argv.push_back(fill(w, port));
  }
  if (peer.config != nullptr) {
    std::ofstream("/data/in/peer.conf") << fill(peer.config, port);
  }
  return argv;
}

class Peers : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    ASSERT_EQ(::mkdir("/data/km", 0700) | ::mkdir("/data/in", 0700), 0);
    const auto write = [](const std::string& name, const std::string& bytes) {
      std::ofstream("/data/in/" + name) << bytes;
    };
    write("root.pem", root_.cert_pem());
    write("other.pem", other_.cert_pem());
    write("srv.pem", srv_.cert_pem() + mid_.cert_pem());
    write("srv.key", srv_.key_pem());
    write("dev.pem", dev_.cert_pem() + mid_.cert_pem());
    write("dev.key", dev_.key_pem());
    write("beta.psk", "beta:ffeeddccbbaa99887766554433221100\n");
    write("tab.psk", "alpha:00112233445566778899aabbccddeeff\nbeta:ffeeddccbbaa99887766554433221100\n");
    for (const char* command : {"init", "put cert dev --cert /data/in/dev.pem --key /data/in/dev.key",
                                "put cert srv --cert /data/in/srv.pem --key /data/in/srv.key",
                                "put ca root /data/in/root.pem", "put psk tab /data/in/tab.psk"}) {
      std::string why;
      auto child = Subprocess::start(cli_argv(command), &why);
      ASSERT_TRUE(child && child->wait_exit(30s) == 0) << command << why << (child ? child->output() : "");
    }
  }

  static certgen::Credential issue(const char* cn, const certgen::Credential* issuer, bool ca,
                                   std::vector<certgen::AltName> alt = {}) {
    const certgen::CertSpec spec{{{"CN", cn}}, std::move(alt), false, ca};
    return issuer == nullptr ? certgen::make_self_signed(spec) : certgen::make_signed(spec, *issuer);
  }
  const certgen::Credential root_ = issue("root", nullptr, true), other_ = issue("other-root", nullptr, true);
  const certgen::Credential mid_ = issue("intermediate", &root_, true);
  const certgen::Credential srv_ =
      issue("server.test", &mid_, false, {{GEN_DNS, "server.test"}, {GEN_IPADD, {"\x7f\0\0\x01", 4}}});
  const certgen::Credential dev_ = issue("dev", &mid_, false);
};

TEST_P(Peers, BothSidesAgreeOnTheOutcome) {
  const Case& c = GetParam();
  int port = 0;
  const bool peer_serves = c.peer.ready[0] != '\0';
  std::string why;
  std::unique_ptr<Subprocess> server, client;
  if (peer_serves) {
    server = start_listening([&](int p) { return as_peer(c.peer, p); }, c.peer.ready, &port);
    ASSERT_NE(server, nullptr);
    client = Subprocess::start(cli_argv(fill(c.ours, port)), &why);
  } else {
    server = start_listening([&](int p) { return cli_argv(fill(c.ours, p)); }, "listening on port", &port);
    ASSERT_NE(server, nullptr);
    client = Subprocess::start(as_peer(c.peer, port), &why);
  }
  ASSERT_NE(client, nullptr) << why;
  Subprocess& peer = peer_serves ? *server : *client;
  Subprocess& ours = peer_serves ? *client : *server;
  EXPECT_FALSE(peer.wait_for_line(c.peer.says, 15s).empty())
      << "the peer did not log: " << c.peer.says << "\n"
      << peer.output();
  client->close_stdin();  // gnutls-cli ends at the end of its input
  EXPECT_EQ(ours.wait_exit(30s), c.exit_code) << ours.output();
  EXPECT_NE(ours.output().find(c.we_say), std::string::npos) << ours.output();
}

INSTANTIATE_TEST_SUITE_P(Interop, Peers, ::testing::ValuesIn(kCases),
                         [](const auto& p) { return std::string(p.param.label); });

}  // namespace
}  // namespace kora::test
