// kora-ssl-store against the TLS peers users deploy, on 127.0.0.1: a GnuTLS server and client, an
// MQTT broker, a TLS tunnel, curl. Every case checks both sides: what the tool says and what the
// peer logged. Certificates chain to a root through an intermediate that only the stored chain
// carries: each side trusts the root alone.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "cli_tool.h"
#include "kora_certgen.h"

namespace kora::test {
namespace {

using namespace std::chrono_literals;

// A peer program ({port} and {in} replaced): its words, what it logs once it listens ("" for a
// client, which runs against our `serve`), its config file if it takes one.
struct Peer {
  const char* command;
  const char* ready;
  const char* config = nullptr;
};
const Peer kGnutlsCert = {
    "gnutls-serv -p {port} --x509certfile {in}/srv.pem --x509keyfile {in}/srv.key --require-client-cert "
    "--verify-client-cert",
    "Server listening on IPv4"};
const Peer kGnutlsPsk = {"gnutls-serv -p {port} --pskpasswd {in}/beta.psk --priority NORMAL:+PSK:+DHE-PSK",
                         "Server listening on IPv4"};
const Peer kGnutlsCli = {
    "gnutls-cli -p {port} --x509cafile {in}/root.pem --x509certfile {in}/dev.pem --x509keyfile {in}/dev.key "
    "127.0.0.1",
    ""};
const Peer kCurl = {
    "curl -sS --cacert {in}/root.pem --cert {in}/dev.pem --key {in}/dev.key https://127.0.0.1:{port}/", ""};
const Peer kMosquittoCert = {
    "mosquitto -c {in}/peer.conf", " running",
    "user root\nlistener {port} 127.0.0.1\ncafile {in}/root.pem\ncertfile {in}/srv.pem\n"
    "keyfile {in}/srv.key\nrequire_certificate true\nlog_dest stderr\nlog_type all\n"};
const Peer kMosquittoPsk = {
    "mosquitto -c {in}/peer.conf", " running",
    "user root\nlistener {port} 127.0.0.1\npsk_hint broker-hint\npsk_file {in}/beta.psk\n"
    "log_dest stderr\nlog_type all\n"};
const Peer kStunnel = {
    "stunnel4 {in}/peer.conf", "Accepting new connections",
    "foreground = yes\npid =\ndebug = info\n[svc]\naccept = 127.0.0.1:{port}\nconnect = "
    "127.0.0.1:1\ncert = {in}/srv.pem\nkey = {in}/srv.key\nCAfile = {in}/root.pem\nverifyChain = "
    "yes\nrequireCert = yes\n"};
constexpr char kServe[] = "serve {port} --cert srv --ca root --once";
constexpr char kConnectDev[] = "connect 127.0.0.1:{port} --cert dev --ca root";

struct Case {
  const char* label;
  const Peer& peer;
  const char* peer_options;
  const char* peer_says;
  const char* ours;
  int exit_code;
  const char* we_say;
};
void PrintTo(const Case& c, std::ostream* os) { *os << c.label; }

const Case kCases[] = {
    {"gnutls_server_trusts_our_chain_tls12", kGnutlsCert,
     "--x509cafile {in}/root.pem --priority NORMAL:-VERS-ALL:+VERS-TLS1.2",
     "Status: The certificate is trusted", kConnectDev, 0, "verification:  ok"},
    {"gnutls_server_trusts_our_chain_tls13", kGnutlsCert,
     "--x509cafile {in}/root.pem --priority NORMAL:-VERS-ALL:+VERS-TLS1.3",
     "Status: The certificate is trusted", kConnectDev, 0, "TLSv1.3"},
    {"gnutls_server_rejects_our_certificate_tls12", kGnutlsCert,
     "--x509cafile {in}/other.pem --priority NORMAL:-VERS-ALL:+VERS-TLS1.2", "Error in handshake",
     kConnectDev, 1, "the server sent alert"},
    {"gnutls_server_rejects_our_certificate_after_tls13_handshake", kGnutlsCert,
     "--x509cafile {in}/other.pem --priority NORMAL:-VERS-ALL:+VERS-TLS1.3", "Error in handshake",
     kConnectDev, 1, "refused our client certificate after"},
    {"server_certificate_without_our_ip_refused", kGnutlsCert, "--x509cafile {in}/root.pem",
     "Error in handshake", "connect 127.0.0.2:{port} --cert dev --ca root", 1, "IP address mismatch"},
    {"gnutls_psk_identity_chosen_over_hint_tls12", kGnutlsPsk, "--pskhint broker-hint", "Connected as 'beta'",
     "connect 127.0.0.1:{port} --psk tab --psk-identity beta --tls1.2", 0, "cipher:        DHE-PSK"},
    {"gnutls_psk_hint_matching_no_identity_explained_tls12", kGnutlsPsk, "--pskhint broker-hint",
     "Handshake failed", "connect 127.0.0.1:{port} --psk tab --tls1.2", 1, "give --psk-identity ID"},
    {"gnutls_psk_without_hint_tls12", kGnutlsPsk, "", "Connected as 'beta'",
     "connect 127.0.0.1:{port} --psk tab --psk-identity beta --tls1.2", 0, "not applicable (PSK)"},
    {"gnutls_psk_tls13", kGnutlsPsk, "", "Connected as 'beta'",
     "connect 127.0.0.1:{port} --psk tab --psk-identity beta --tls1.3", 0, "TLSv1.3"},
    {"mosquitto_certificate_listener_accepts_our_chain", kMosquittoCert, "", "closed its connection",
     kConnectDev, 0, "verification:  ok"},
    {"mosquitto_refusal_seen_after_tls13_handshake", kMosquittoCert, "", "peer did not return a certificate",
     "connect 127.0.0.1:{port} --ca root --tls1.3", 1, "alert 'certificate required'"},
    {"mosquitto_psk_listener_with_hint_tls12", kMosquittoPsk, "", "closed its connection",
     "connect 127.0.0.1:{port} --psk tab --psk-identity beta --tls1.2", 0, "cipher:        DHE-PSK"},
    {"stunnel_verifies_our_chain", kStunnel, "", "Certificate accepted at depth=0: CN=dev",
     "connect 127.0.0.1:{port} --cert dev --ca root --tls1.2", 0, "verification:  ok"},
    {"stunnel_requires_a_client_certificate", kStunnel, "", "peer did not return a certificate",
     "connect 127.0.0.1:{port} --ca root --tls1.2", 1, "the server sent alert"},
    {"gnutls_client_trusts_served_chain_tls12", kGnutlsCli, "--priority NORMAL:-VERS-ALL:+VERS-TLS1.2",
     "hello from kora-ssl-store serve (TLSv1.2", kServe, 0, "peer subject:  /CN=dev"},
    {"gnutls_client_trusts_served_chain_tls13", kGnutlsCli, "--priority NORMAL:-VERS-ALL:+VERS-TLS1.3",
     "hello from kora-ssl-store serve (TLSv1.3", kServe, 0, "verification:  ok"},
    {"curl_gets_the_served_line", kCurl, "", "hello from kora-ssl-store serve", kServe, 0,
     "verification:  ok"},
};

std::string fill(const std::string& text, int port) {
  return std::regex_replace(std::regex_replace(text, std::regex("\\{port\\}"), std::to_string(port)),
                            std::regex("\\{in\\}"), "/data/in");
}

// A peer runs under "timeout", in case this process dies before it can kill it.
std::vector<std::string> peer_argv(const Case& c, int port) {
  if (c.peer.config != nullptr) {
    spill("/data/in/peer.conf", fill(c.peer.config, port));
  }
  std::vector<std::string> argv = words_of(fill(std::string(c.peer.command) + " " + c.peer_options, port));
  argv.insert(argv.begin(), {"timeout", "-s", "KILL", "60", "stdbuf", "-oL", "-eL"});
  return argv;
}

class Peers : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    ASSERT_EQ(::mkdir("/data/km", 0700) | ::mkdir("/data/in", 0700) | ::chdir("/data/in"), 0);
    const auto root = certgen::make_self_signed({{{"CN", "root"}}, {}, false, true});
    const auto other = certgen::make_self_signed({{{"CN", "other-root"}}, {}, false, true});
    const auto mid = certgen::make_signed({{{"CN", "mid"}}, {}, false, true}, root);
    const auto srv = certgen::make_signed(
        {{{"CN", "server.test"}}, {{GEN_DNS, "server.test"}, {GEN_IPADD, {"\x7f\0\0\x01", 4}}}, false, false},
        mid);
    const auto dev = certgen::make_signed({{{"CN", "dev"}}, {{GEN_DNS, "dev"}}, false, false}, mid);
    const std::string psk = "beta:ffeeddccbbaa99887766554433221100\n";
    spill("root.pem", root.cert_pem());
    spill("other.pem", other.cert_pem());
    spill("srv.pem", srv.cert_pem() + mid.cert_pem());
    spill("srv.key", srv.key_pem());
    spill("dev.pem", dev.cert_pem() + mid.cert_pem());
    spill("dev.key", dev.key_pem());
    spill("beta.psk", psk);
    spill("tab.psk", "alpha:00112233445566778899aabbccddeeff\n" + psk);
    cli_all({"init", "put cert dev --cert dev.pem --key dev.key", "put cert srv --cert srv.pem --key srv.key",
             "put ca root root.pem", "put psk tab tab.psk"});
  }
};

TEST_P(Peers, BothSidesAgreeOnTheOutcome) {
  const Case& c = GetParam();
  const bool peer_serves = c.peer.ready[0] != '\0';
  int port = 0;
  std::string why;
  auto server =
      peer_serves ? start_listening([&](int p) { return peer_argv(c, p); }, c.peer.ready, &port)
                  : start_listening([&](int p) { return cli_argv(fill(c.ours, p)); }, "listening on", &port);
  ASSERT_NE(server, nullptr);
  auto client = Subprocess::start(peer_serves ? cli_argv(fill(c.ours, port)) : peer_argv(c, port), &why);
  ASSERT_NE(client, nullptr) << why;
  Subprocess& peer = peer_serves ? *server : *client;
  Subprocess& ours = peer_serves ? *client : *server;
  EXPECT_NE(peer.wait_for_line(c.peer_says, 15s), "") << "the peer did not log: " << c.peer_says << "\n"
                                                      << peer.output();
  client->close_stdin();  // gnutls-cli ends at the end of its input
  EXPECT_EQ(ours.wait_exit(30s), c.exit_code) << ours.output();
  EXPECT_NE(ours.output().find(c.we_say), std::string::npos) << ours.output();
}

INSTANTIATE_TEST_SUITE_P(Interop, Peers, ::testing::ValuesIn(kCases),
                         [](const auto& p) { return std::string(p.param.label); });

}  // namespace
}  // namespace kora::test
