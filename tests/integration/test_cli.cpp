// kora-ssl-store as a user runs it: a spawned process on the case's private store root, working
// in /data/in where the user's input files are.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <thread>

#include "cli_tool.h"
#include "kora_certgen.h"

namespace kora::test {
namespace {

using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
namespace fs = std::filesystem;
const std::string kStore = "/data/data_velto/.ssl/";
const auto kLabel = [](const auto& p) { return std::string(p.param.label); };
// Prints a row as its label rather than as raw bytes.
template <class Row, class = decltype(Row::label)>
std::ostream& operator<<(std::ostream& os, const Row& row) {
  return os << row.label;
}

// A shell script in the input directory; $KORA runs the tool, "openssl" the openssl tool.
Result shell(const std::string& script) {
  std::string tool;
  for (const std::string& word : cli_argv("")) {
    tool += word + " ";
  }
  ::setenv("KORA", tool.c_str(), 1);
  return run({"sh", "-c", script});
}

// `serve PORT OPTIONS` on a free port, once it listens there.
std::unique_ptr<Subprocess> serve(const std::string& options, int* port) {
  return start_listening([&](int p) { return cli_argv("serve " + std::to_string(p) + " " + options); },
                         " at 127.0.0.1", port);
}

// Serves once with `serve_options` and connects with `connect_options`: the credentials load and
// the client verifies the handshake. Returns what the client and the server printed.
std::pair<std::string, std::string> expect_handshake(const std::string& serve_options,
                                                     const std::string& connect_options) {
  int port = 0;
  auto server = serve(serve_options + " --once", &port);
  const Result r = cli("connect 127.0.0.1:" + std::to_string(port) + " " + connect_options);
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_THAT(r.out, HasSubstr("verification:  ok"));
  EXPECT_EQ(server->wait_exit(10s), 0) << server->output();
  return {r.out, server->output()};
}

// Every directory and file under the data root and the root key's directory, with its bytes.
std::map<std::string, std::string> snapshot() {
  std::map<std::string, std::string> out;
  for (const char* root : {"/data/data_velto", "/data/km"}) {
    std::error_code ec;
    if (fs::exists(root)) {
      out[root] = "";
    }
    for (fs::recursive_directory_iterator it(root, ec), end; it != end; it.increment(ec)) {
      out[it->path()] = it->is_regular_file() ? slurp(it->path()) : "";
    }
  }
  return out;
}

class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    ASSERT_EQ(::mkdir("/data/km", 0700) | ::mkdir("/data/in", 0700) | ::chdir("/data/in"), 0);
    const auto ca = certgen::make_self_signed({{{"CN", "test-ca"}}, {}, false, true});
    const auto server =
        certgen::make_signed({{{"CN", "test-server"}}, {{GEN_IPADD, {"\x7f\0\0\x01", 4}}}, false, false}, ca);
    const auto client = certgen::make_signed({{{"CN", "test-client"}}, {}, false, false}, ca);
    const std::vector<uint8_t> der = server.cert_der();
    spill("ca.pem", ca.cert_pem());
    spill("server.pem", server.cert_pem());
    spill("server.key", server.key_pem());
    spill("client.pem", client.cert_pem());
    spill("client.key", client.key_pem());
    spill("server.der", std::string(der.begin(), der.end()));
    spill("ca.key", ca.key_pem());
    spill("psk.txt", "dev1:00112233445566778899aabbccddeeff\n|a:b|:0102\n");
    spill("psk_comments.txt", "# lab table\r\n\r\n  # indented\ndev1:00\n\n");
    spill("psk_no_colon.txt", "dev1:00\ndev2 0011\n");
    spill("psk_duplicate.txt", "dev1:00\n# x\ndev1:01\n");
    spill("psk_long_identity.txt", std::string(257, 'i') + ":00\n");
    spill("psk_long_key.txt", "dev1:" + std::string(514, 'a') + "\n");
    spill("psk_odd_key.txt", "dev1:001\n");
    spill("psk_bar.txt", "ab|c:00\n");
    spill("chain_reversed.pem", ca.cert_pem() + server.cert_pem());
  }
  static void provision() {
    cli_all({"init", "put cert srv --cert server.pem --key server.key",
             "put cert cli --cert client.pem --key client.key", "put ca roots ca.pem"});
  }
};

TEST_F(Cli, StoresListsSortedPastTenConvertsAndRemovesEveryKindSealedAtRest) {
  Result r = cli("init");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("new key material provisioned"));
  r = cli("init");
  EXPECT_THAT(r.out, HasSubstr("existing key material loaded"));
  EXPECT_EQ(r.err, "");
  cli_all({"put cert srv --cert server.pem --key server.key", "put ca roots ca.pem",
           "put di ident server.der", "put psk lab psk.txt"});
  EXPECT_THAT(slurp(kStore + "private_keys/srv"), Not(HasSubstr("PRIVATE KEY")));
  EXPECT_THAT(slurp(kStore + "ca_lists/roots"), Not(HasSubstr("BEGIN CERTIFICATE")));
  EXPECT_THAT(slurp(kStore + "psk_table/lab"), Not(HasSubstr("dev1")));
  EXPECT_EQ(cli("ls").out, "cert srv\nca   roots\npsk  lab\ndi   ident\n");
  r = cli("-v ls psk");
  EXPECT_EQ(r.out, "psk  lab\n");
  EXPECT_THAT(r.err, HasSubstr("SSL_cert_store: Successfully genereated Keyblob"));
  // PSK comments are stripped, and a listing shows identities, never keys.
  r = cli("put psk notes psk_comments.txt");
  EXPECT_EQ(r.out, "stored PSK table 'notes' (1 entry)\n") << r.err;
  EXPECT_EQ(cli("ls -l psk").out,
            "psk  lab\n    entries:       2\n    identities:    dev1, a:b\npsk  notes\n"
            "    entries:       1\n    identities:    dev1\n");
  // A refused table leaves the one stored before in place.
  EXPECT_EQ(cli("put psk lab psk_duplicate.txt").code, 1);
  EXPECT_THAT(cli("show psk lab").out, HasSubstr("dev1, a:b"));

  EXPECT_EQ(cli("der2pem server.der out.pem").code, 0);
  EXPECT_EQ(slurp("out.pem"), slurp("server.pem"));
  cli_all({"rm cert srv", "rm ca roots", "rm di ident", "rm psk lab", "rm psk notes"});
  EXPECT_FALSE(fs::exists(kStore + "private_keys/srv"));
  EXPECT_EQ(cli("ls").out, "");
  // Every name is listed, sorted, beyond the store's ten.
  std::string expected;  // stored last to first, listed first to last
  for (int i = 111; i >= 100; --i) {
    ASSERT_EQ(cli("put ca r" + std::to_string(i) + " ca.pem").code, 0);
    expected.insert(0, "ca   r" + std::to_string(i) + "\n");
  }
  spill(kStore + "ca_lists/evil\x1b[2J\n", "x");  // planted by hand: reaches the terminal escaped
  expected.insert(0, "ca   evil\\x1b[2J\\x0a\n");
  EXPECT_EQ(cli("ls ca").out, expected);
  EXPECT_EQ(cli("ls").out, expected);
}

const char* const kP256 = "-algorithm EC -pkeyopt ec_paramgen_curve:P-256";
// Makes a leaf for 127.0.0.1 signed by the test CA, with its key in k.pem made by `genpkey`
// (algorithm options), then runs `rest`.
Result leaf_then(const std::string& genpkey, const std::string& rest) {
  return shell(
      "set -e; openssl genpkey " + genpkey +
      " -out k.pem 2>/dev/null; printf 'subjectAltName=IP:127.0.0.1\\n' >san.ext;"
      "openssl req -new -key k.pem -subj /CN=leaf -out x.csr;"
      "openssl x509 -req -in x.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 5 -extfile san.ext "
      "-out x.pem 2>/dev/null; openssl x509 -in x.pem -outform DER -out x.der; echo pw >pw.txt;" +
      rest);
}

struct KeyForm {
  const char* label;
  const char* genpkey;         // algorithm options
  const char* convert;         // makes the file "key" from k.pem; ends in "&&" or in "|" to feed the tool
  const char* put;             // options after "put cert x"
  const char* key_line;        // the key as show describes it
  bool legacy_cipher = false;  // needs OpenSSL's legacy provider, which a host may lack
};
class CliKeyForm : public Cli, public ::testing::WithParamInterface<KeyForm> {};

// Whatever form put accepts, the store's loader reads back: the handshake proves it.
TEST_P(CliKeyForm, StoresAKeyTheLoaderReadsBack) {
  provision();
  const Result r =
      leaf_then(GetParam().genpkey, GetParam().convert + std::string(" $KORA put cert x ") + GetParam().put);
  if (GetParam().legacy_cipher && r.err.find("legacy provider is not installed") != std::string::npos) {
    GTEST_SKIP() << r.err;  // the tool's OpenSSL (an emulated one, say) lacks the legacy provider
  }
  ASSERT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_THAT(r.out, HasSubstr("chain of 1 certificate"));
  EXPECT_THAT(cli("show cert x").out, HasSubstr(GetParam().key_line));
  expect_handshake("--cert x", "--ca roots");
}

const KeyForm kKeyForms[] = {
    {"ec_sec1_der_der_cert", "-algorithm EC -pkeyopt ec_paramgen_curve:P-384",
     "openssl ec -in k.pem -outform DER -out key &&", "--cert x.der --key key", "EC P-384"},
    {"ec_pkcs8_pem_der_cert", kP256, "cp k.pem key &&", "--cert x.der --key key", "EC P-256"},
    {"rsa_traditional_pem", "-algorithm RSA", "openssl rsa -in k.pem -traditional -out key &&",
     "--cert x.pem --key key", "RSA 2048"},
    {"rsa_pkcs1_der_pem_cert", "-algorithm RSA",
     "openssl rsa -in k.pem -traditional -outform DER -out key &&", "--cert x.pem --key key", "RSA 2048"},
    {"ed25519_pkcs8_der", "-algorithm ED25519",
     "openssl pkcs8 -topk8 -nocrypt -in k.pem -outform DER -out key &&", "--cert x.pem --key key", "ED25519"},
    {"ed448_pem", "-algorithm ED448", "cp k.pem key &&", "--cert x.der --key key", "ED448"},
    {"encrypted_pkcs8_pass", "-algorithm ED25519",
     "openssl pkcs8 -topk8 -in k.pem -passout pass:pw -out key &&", "--cert x.pem --key key --pass pass:pw",
     "ED25519"},
    {"encrypted_der_env", kP256,
     "openssl pkcs8 -topk8 -in k.pem -passout pass:pw -outform DER -out key; export PW=pw &&",
     "--cert x.der --key key --pass env:PW", "EC P-256"},
    {"encrypted_traditional_file", "-algorithm RSA",
     "openssl rsa -in k.pem -aes128 -traditional -passout pass:pw -out key 2>/dev/null &&",
     "--cert x.pem --key key --pass file:pw.txt", "RSA 2048"},
    {"encrypted_stdin_cert_on_stdin", kP256,
     "openssl pkcs8 -topk8 -in k.pem -passout pass:pw -out key; cat x.pem |",
     "--cert - --key key --pass file:pw.txt", "EC P-256"},
    {"encrypted_pass_on_stdin", kP256, "openssl pkcs8 -topk8 -in k.pem -passout pass:pw -out key; echo pw |",
     "--cert x.pem --key key --pass stdin", "EC P-256"},
    {"certificate_then_key_in_one_file", "-algorithm ED448", "cat x.pem k.pem >key &&",
     "--cert key --key key", "ED448"},
    {"pkcs12", kP256, "openssl pkcs12 -export -in x.pem -inkey k.pem -passout pass:pw -out key &&",
     "--p12 key --pass pass:pw", "EC P-256"},
    {"pkcs12_legacy_cipher", "-algorithm RSA",
     "openssl pkcs12 -export -legacy -in x.pem -inkey k.pem -passout pass:pw -out key &&",
     "--p12 key --pass pass:pw", "RSA 2048", true},
};
INSTANTIATE_TEST_SUITE_P(Forms, CliKeyForm, ::testing::ValuesIn(kKeyForms), kLabel);

TEST_F(Cli, ShowsCertificateDetailsAndServeAndConnectAuthenticateEachOtherPastAnIdleClient) {
  provision();
  const Result fp = shell("openssl x509 -in server.pem -noout -fingerprint -sha256 | cut -d= -f2");
  EXPECT_THAT(
      cli("show cert srv").out,
      AllOf(StartsWith("cert srv\n    subject:       CN = test-server\n    issuer:        CN = test-ca\n"),
            HasSubstr("EXPIRES SOON"), HasSubstr("key:           EC P-256"), HasSubstr("chain length:  1"),
            HasSubstr("sha256:        " + fp.out)));
  EXPECT_THAT(
      cli("ls -l --json cert").out,
      AllOf(HasSubstr("\"name\" : \"cli\""), HasSubstr("\"key_bits\" : 256"), Not(HasSubstr("PRIVATE KEY"))));
  EXPECT_THAT(cli("--version").out, StartsWith("kora-ssl-store "));
  const auto [client, server] = expect_handshake("--cert srv --ca roots", "--cert cli --ca roots --tls1.2");
  EXPECT_THAT(client, AllOf(HasSubstr("protocol:      TLSv1.2"), HasSubstr("test-server")));
  EXPECT_THAT(server, AllOf(HasSubstr("test-client"), HasSubstr("verification:  ok")));
  // Another process: a client that connects and sends nothing holds the server only until its
  // handshake times out (10 s by default); the next client is served.
  int port = 0;
  auto busy = serve("--cert srv", &port);
  const int idle = connect_loopback(port);
  const Result r = cli("connect 127.0.0.1:" + std::to_string(port) + " --ca roots");
  ::close(idle);
  EXPECT_EQ(r.code, 0) << r.err;
}

// A key born on the device: sealed at once, listed while it waits, and joined by the
// certificate issued for it. Then chains: kept whole, counted, put in order from a PKCS#12 bag.
TEST_F(Cli, CsrKeyIsSealedAndAttachedToItsCertificateAndChainsAreKeptInOrder) {
  provision();
  Result r = cli(
      "csr dev --subject /CN=dev42/O=Kora --key ed25519 --san DNS:dev42.example,IP:127.0.0.1 --out dev.csr");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(slurp(kStore + "private_keys/dev"), Not(HasSubstr("PRIVATE KEY")));
  EXPECT_THAT(cli("show cert dev").out, HasSubstr("key only: waiting for its certificate"));
  EXPECT_EQ(cli("csr dev --subject /CN=again").code, 1);
  EXPECT_EQ(cli("put cert dev --cert server.pem").code, 1);  // issued to another key
  r = shell(
      "openssl x509 -req -in dev.csr -CA ca.pem -CAkey ca.key -CAcreateserial -copy_extensions copy -days 5 "
      "-out dev.pem 2>/dev/null && $KORA put cert dev --cert dev.pem");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("(CN = dev42, O = Kora) with its ED25519 private key"));
  expect_handshake("--cert dev", "--ca roots");
  // rm takes either half alone: a key waiting for its certificate, a certificate whose key a cut lost.
  ASSERT_EQ(::unlink((kStore + "private_keys/srv").c_str()), 0);
  cli_all({"csr gone --subject /CN=gone --out gone.csr", "rm cert gone", "rm cert srv"});
  EXPECT_FALSE(fs::exists(kStore + "private_keys/gone") || fs::exists(kStore + "certs/srv"));
  // A chain is kept whole and counted.
  const auto ca = certgen::make_self_signed({{{"CN", "root"}}, {}, false, true});
  const auto mid = certgen::make_signed({{{"CN", "mid"}}, {}, false, true}, ca);
  const auto leaf =
      certgen::make_signed({{{"CN", "leaf"}}, {{GEN_IPADD, {"\x7f\0\0\x01", 4}}}, false, false}, mid);
  spill("full.pem", leaf.cert_pem() + mid.cert_pem() + ca.cert_pem());
  spill("root.pem", ca.cert_pem());
  spill("leaf.key", leaf.key_pem());
  spill("bag.pem", ca.cert_pem() + mid.cert_pem());
  r = cli("put cert full --cert full.pem --key leaf.key");
  EXPECT_THAT(r.out, HasSubstr("chain of 3 certificates")) << r.err;
  // A bag lists its certificates in any order, some twice; the stored chain runs leaf, issuer, root.
  r = shell(
      "openssl pkcs12 -export -in full.pem -inkey leaf.key -certfile bag.pem -passout pass: -out p.p12 &&"
      "$KORA put cert bag --p12 p.p12 && $KORA show --json cert bag");
  EXPECT_THAT(r.out, AllOf(HasSubstr("chain of 3 certificates"), HasSubstr("\"chain_length\" : 3"),
                           HasSubstr("\"issuer\" : \"CN = mid\"")))
      << r.err;
  ASSERT_EQ(cli("put ca root root.pem").code, 0);
  expect_handshake("--cert bag", "--ca root");  // trusted by the root alone: the stored chain is sent
}

// What the command finds: an initialised store, no store, or the usual credentials with a threat
// from outside the tool planted among them (another user's files, a FIFO, a link, a flipped bit).
enum class Plant { kNone, kNoStore, kFifo, kSymlink, kOtherOwner, kOthersWrite, kFlippedBit };
struct Refusal {
  const char* label;
  const char* command;  // with "$KORA": a shell script run after making a leaf and its EC key
  int code;
  const char* says;
  Plant plant = Plant::kNone;
  const char* path = "";  // below the data root, where the plant goes
};
class CliRefusal : public Cli, public ::testing::WithParamInterface<Refusal> {};

// One flipped bit in a sealed file; 0 once written.
int flip_bit(const std::string& path) {
  std::string bytes = slurp(path);
  if (bytes.size() < 20) {
    return -1;
  }
  bytes[bytes.size() / 2] ^= 0x01;
  return spill(path, bytes) ? 0 : -1;
}

// One line on stderr naming the reason, and nothing written anywhere. Something planted where
// the store expects its own regular file or private directory is refused before the store opens
// it: no command blocks on a FIFO (a hang shows as code -1) or follows a link. A sealed file
// altered in place fails with a clear error naming the credential, and nothing loads.
TEST_P(CliRefusal, SaysWhyInOneLineAndWritesNothing) {
  const Refusal& row = GetParam();
  const std::string path = std::string("/data/data_velto/") + row.path, command = row.command;
  if (row.plant == Plant::kNone) {
    ASSERT_EQ(cli("init").code, 0);
  } else if (row.plant != Plant::kNoStore) {
    provision();
  }
  if (row.plant == Plant::kFifo || row.plant == Plant::kSymlink) {
    fs::remove(path);
  }
  const int planted = row.plant == Plant::kFifo          ? ::mkfifo(path.c_str(), 0600)
                      : row.plant == Plant::kSymlink     ? ::symlink("/data/in/ca.pem", path.c_str())
                      : row.plant == Plant::kOtherOwner  ? ::chown(path.c_str(), 65534, 65534)
                      : row.plant == Plant::kFlippedBit  ? flip_bit(path)
                      : row.plant == Plant::kOthersWrite ? ::chmod(path.c_str(), 0777)
                                                         : 0;
  ASSERT_EQ(planted, 0) << path;
  const auto before = snapshot();
  const Result r = command.find("$KORA") == std::string::npos ? cli(command) : leaf_then(kP256, command);
  EXPECT_EQ(r.code, row.code) << r.err;
  EXPECT_THAT(r.err, HasSubstr(row.says));
  if (command.rfind("-v ", 0) != 0) {  // -v adds the store's own messages
    EXPECT_THAT(r.err, StartsWith("kora-ssl-store "));
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  EXPECT_EQ(snapshot(), before);
}

const Refusal kRefusals[] = {
    {"slash", "put ca ../x ca.pem", 2, "refusing name '../x': it contains \"/\""},
    {"dotdot", "put di .. server.pem", 2, "refusing name '..': \"..\" names a directory"},
    {"dot", "rm ca .", 2, "refusing name '.': \".\" names a directory"},
    {"escape_sequence_in_name", "put ca a\x1b[2Jb ca.pem", 2,
     "refusing name 'a\\x1b[2Jb': it contains the byte \\x1b"},
    {"connect_name", "connect 127.0.0.1:1 --ca ..", 2, "--ca: refusing name '..'"},
    {"wrong_kind", "put key x ca.pem", 2, "unknown kind 'key': use cert, ca, psk or di"},
    {"unknown_option", "ls --all", 2, "unknown option --all"},
    {"uninitialised", "put ca x ca.pem", 1, "run 'kora-ssl-store init' first", Plant::kNoStore},
    {"missing_file", "put ca x none.pem", 1, "cannot read none.pem"},
    {"ca_not_pem", "put ca x server.der", 1, "is not a PEM list of CA certificates"},
    {"di_not_cert", "put di x psk.txt", 1, "holds no certificate"},
    {"key_mismatch", "put cert x --cert server.pem --key client.key", 1, "is not the private key of"},
    {"psk_no_colon", "put psk x psk_no_colon.txt", 1,
     "psk_no_colon.txt line 2: no \":\" between identity and key"},
    {"psk_duplicate", "put psk x psk_duplicate.txt", 1, "line 3: duplicate identity (first on line 1)"},
    {"psk_identity_unsendable", "put psk x psk_long_identity.txt", 1, "257 bytes; OpenSSL sends at most 256"},
    {"psk_key_too_long", "put psk x psk_long_key.txt", 1, "257 bytes; the store holds at most 256"},
    {"psk_odd_digits", "put psk x psk_odd_key.txt", 1, "line 1: the key has an odd number"},
    {"psk_bar_unquoted", "put psk x psk_bar.txt", 1, "write the identity as |IDENTITY|:HEXKEY"},
    {"wrong_pass",
     "openssl pkcs8 -topk8 -in k.pem -passout pass:pw -out key; $KORA put cert x --cert x.pem --key key --pass pass:no",
     1, "the pass phrase does not decrypt the key"},
    {"no_pass_no_terminal",
     "openssl pkcs8 -topk8 -in k.pem -passout pass:pw -out key; $KORA put cert x --cert x.pem --key key", 1,
     "key: encrypted; give its pass phrase with --pass"},
    {"p12_wrong_pass",
     "openssl pkcs12 -export -in x.pem -inkey k.pem -passout pass:pw -out p; $KORA put cert x --p12 p --pass pass:no",
     1, "the pass phrase does not open p"},
    {"stdin_twice", "cat x.pem | $KORA put cert x --cert - --key -", 1, "standard input is already read"},
    {"der_with_trailing_bytes", "cat x.der x.der >two.der; $KORA put cert x --cert two.der --key k.pem", 1,
     "use PEM for a chain"},
    {"chain_leaf_not_first", "put cert x --cert chain_reversed.pem --key server.key", 1,
     "is not the private key of the first certificate"},
    {"pass_source_unknown", "put cert x --cert server.pem --key server.key --pass bogus", 2, "--pass takes"},
    {"attach_without_key", "put cert x --cert server.pem", 1, "no private key is stored under 'x'"},
    {"csr_bad_subject", "csr x --subject CN=x", 2, "--subject must look like /CN=NAME"},
    {"csr_bad_key", "csr x --subject /CN=x --key dsa:1024", 2, "unknown key type 'dsa:1024'"},
    {"show_missing", "show psk nothing", 1, "no PSK table named 'nothing' in the store"},
    {"not_der", "der2pem server.pem", 1, "is not a DER certificate"},
    {"rm_missing", "rm ca nothing", 1, "no CA list named 'nothing' in the store"},
    {"load_missing", "serve 1 --cert nothing", 1, "no certificate named 'nothing' in the store"},
    {"fifo_at_ca_list", "connect 127.0.0.1:1 --ca roots", 1, "roots is a FIFO", Plant::kFifo,
     ".ssl/ca_lists/roots"},
    {"fifo_at_private_key", "connect 127.0.0.1:1 --cert cli --insecure", 1, "a FIFO", Plant::kFifo,
     ".ssl/private_keys/cli"},
    {"fifo_at_put_target", "put ca new ca.pem", 1, "new is a FIFO", Plant::kFifo, ".ssl/ca_lists/new"},
    {"fifo_at_rm_target", "rm cert srv", 1, "srv is a FIFO", Plant::kFifo, ".ssl/certs/srv"},
    {"fifo_at_key_blob", "ls", 1, "takey.blob is a FIFO", Plant::kFifo, ".ssl/keyblob/takey.blob"},
    {"fifo_at_nonce", "init", 1, "takey.nonce is a FIFO", Plant::kFifo, ".ssl/keyblob/takey.nonce"},
    {"link_at_certificate", "serve 1 --cert srv", 1, "srv is a symbolic link", Plant::kSymlink,
     ".ssl/certs/srv"},
    {"link_in_tree", "init", 1, "roots is a symbolic link", Plant::kSymlink, ".ssl/ca_lists/roots"},
    {"data_root_of_another_user", "init", 1, "belongs to user 65534", Plant::kOtherOwner, ""},
    {"store_of_another_user", "init", 1, ".ssl/ belongs to user 65534", Plant::kOtherOwner, ".ssl/"},
    {"credential_of_another_user", "init", 1, "belongs to user 65534", Plant::kOtherOwner,
     ".ssl/ca_lists/roots"},
    {"data_root_open_to_all", "init", 1, "writable by other users (mode 0777)", Plant::kOthersWrite, ""},
    {"bit_flipped_in_ca_list", "-v connect 127.0.0.1:1 --ca roots", 1,
     "loading CA list 'roots' failed: store status -1 (KORA_ERROR)", Plant::kFlippedBit,
     ".ssl/ca_lists/roots"},
    {"bit_flipped_in_certificate", "-v serve 1 --cert srv", 1,
     "loading certificate 'srv' failed: store status -1 (KORA_ERROR)", Plant::kFlippedBit, ".ssl/certs/srv"},
};
INSTANTIATE_TEST_SUITE_P(Cases, CliRefusal, ::testing::ValuesIn(kRefusals), kLabel);

struct Demo {
  const char* label;
  std::vector<const char*> setup;  // commands run first
  const char* removed;             // then this path is removed
  int code;
  const char* says;
  int signal = 0;  // sent once the demo has stored its credentials
};
class CliDemo : public Cli, public ::testing::WithParamInterface<Demo> {};

// Whether it passes, refuses or is killed mid-run, the demo leaves the data root and the key
// directory as it found them.
TEST_P(CliDemo, LeavesTheHostAsFound) {
  const Demo& row = GetParam();
  ASSERT_NO_FATAL_FAILURE(cli_all(row.setup));
  ASSERT_TRUE(fs::remove(row.removed) || row.removed[0] == '\0');
  const auto before = snapshot();
  std::string why;
  auto demo = Subprocess::start(cli_argv("demo"), &why, "/data/cli.err");
  ASSERT_NE(demo, nullptr) << why;
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (row.signal != 0 && !fs::exists(kStore + "certs/kora-demo-server") &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  ASSERT_TRUE(row.signal == 0 || ::kill(demo->pid(), row.signal) == 0);
  EXPECT_EQ(demo->wait_exit(60s), row.code) << demo->output() << slurp("/data/cli.err");
  EXPECT_THAT((demo->output() + slurp("/data/cli.err")), HasSubstr(row.says)) << demo->output();
  EXPECT_THAT(demo->output(), Not(HasSubstr("[FAIL]")));
  EXPECT_EQ(snapshot(), before);
}

const Demo kDemos[] = {
    {"missing_root", {}, "/data/data_velto", 0, "demo passed"},
    {"empty_root", {}, "", 0, "demo passed"},
    {"existing_store", {"init", "put ca mine ca.pem"}, "", 0, "demo passed"},
    {"root_key_gone", {"init"}, "/data/km/root.key", 1, "root key /data/km/root.key is missing"},
    {"name_taken", {"init", "put ca kora-demo-ca ca.pem"}, "", 1, "already holds CA list 'kora-demo-ca'"},
    {"sigint_mid_run", {}, "", 128 + SIGINT, "", SIGINT},
    {"sigterm_mid_run", {}, "", 128 + SIGTERM, "", SIGTERM},
    {"sighup_mid_run", {}, "", 128 + SIGHUP, "", SIGHUP},
};
INSTANTIATE_TEST_SUITE_P(Hosts, CliDemo, ::testing::ValuesIn(kDemos), kLabel);

// Another user: whatever the umask, nothing in the tree is open to them, init closes a tree an
// older version left open, and a link they plant is never written through.
TEST_F(Cli, AnotherUserCanNeitherOpenTheTreeWhateverTheUmaskNorRedirectDer2pemThroughALink) {
  const mode_t saved = ::umask(0);
  ASSERT_EQ(::mkdir(kStore.c_str(), 0755) | ::mkdir((kStore + "ca_lists").c_str(), 0777), 0);
  provision();
  ::umask(saved);
  for (const auto& e : fs::recursive_directory_iterator(kStore)) {
    EXPECT_EQ(e.status().permissions() & (fs::perms::group_all | fs::perms::others_all), fs::perms::none)
        << e.path();
  }
  ASSERT_EQ(::mkdir("/data/shared", 0755) | ::chown("/data/shared", 65534, 65534), 0);
  spill("/data/victim", "precious");
  ASSERT_EQ(::seteuid(65534), 0);
  const int fd = ::open((kStore + "ca_lists/roots").c_str(), O_RDONLY | O_CLOEXEC);
  // They plant a link where der2pem writes: the link's target is never written.
  const int planted = ::symlink("/data/victim", "/data/shared/out.pem");
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_LT(fd, 0) << "another user opened a sealed CA list";
  ASSERT_EQ(planted, 0);
  const Result r = cli("der2pem server.der /data/shared/out.pem");
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("/data/shared/out.pem exists; give --force to replace it"));
  EXPECT_EQ(cli("der2pem server.der /data/shared/out.pem --force").code, 0);
  EXPECT_EQ(slurp("/data/victim"), "precious");
  EXPECT_FALSE(fs::is_symlink("/data/shared/out.pem"));
  EXPECT_EQ(slurp("/data/shared/out.pem"), slurp("server.pem"));
}

}  // namespace
}  // namespace kora::test
