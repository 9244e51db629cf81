// kora-ssl-store as a user runs it: a spawned process on the case's private store root.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kora_certgen.h"

extern char** environ;

namespace {

namespace cg = kora::certgen;

constexpr const char* kStore = "/data/data_velto/.ssl/";

struct CliRun {
  int code = -1;
  std::string out;
  std::string err;
};

std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void spit(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << bytes;
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

// Starts the tool with `args`; its stdout and stderr go to files named after `tag`.
pid_t start(const std::vector<std::string>& args, const std::string& tag) {
  std::vector<std::string> argv_s = {KORA_CLI_PATH};
  argv_s.insert(argv_s.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argv_s) {
    argv.push_back(a.data());
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, ("/data/cli-" + tag + ".out").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&fa, 2, ("/data/cli-" + tag + ".err").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  return rc == 0 ? pid : -1;
}

CliRun finish(pid_t pid, const std::string& tag) {
  CliRun r;
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
    r.code = WEXITSTATUS(status);
  }
  r.out = slurp("/data/cli-" + tag + ".out");
  r.err = slurp("/data/cli-" + tag + ".err");
  return r;
}

CliRun cli(const std::vector<std::string>& args) { return finish(start(args, "run"), "run"); }

int free_port() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in sa {};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(sa);
  ::bind(fd, reinterpret_cast<struct sockaddr*>(&sa), sizeof(sa));
  ::getsockname(fd, reinterpret_cast<struct sockaddr*>(&sa), &len);
  ::close(fd);
  return ntohs(sa.sin_port);
}

// A private directory tree: test_main gives every case a fresh /data/data_velto/; the host
// key service keeps its root key in /data/km/ and the cases' input files live in /data/in/.
class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::mkdir("/data/km", 0700);
    ::mkdir("/data/in", 0700);
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
  }

  void init() {
    const CliRun r = cli({"init"});
    ASSERT_EQ(r.code, 0) << r.err;
  }

  // Writes a CA, a server and a client credential signed by it, and an unrelated CA.
  void make_pki() {
    cg::CertSpec spec;
    spec.is_ca = true;
    spec.subject = {{"CN", "test-ca"}};
    ca_ = cg::make_self_signed(spec);
    spec.subject = {{"CN", "other-ca"}};
    const cg::Credential other = cg::make_self_signed(spec);
    cg::CertSpec leaf;
    leaf.subject = {{"CN", "test-server"}};
    const cg::Credential server = cg::make_signed(leaf, ca_);
    leaf.subject = {{"CN", "test-client"}};
    const cg::Credential client = cg::make_signed(leaf, ca_);
    spit("/data/in/ca.pem", ca_.cert_pem());
    spit("/data/in/other.pem", other.cert_pem());
    spit("/data/in/server.pem", server.cert_pem());
    spit("/data/in/server.key", server.key_pem());
    spit("/data/in/client.pem", client.cert_pem());
    spit("/data/in/client.key", client.key_pem());
    const std::vector<uint8_t> der = server.cert_der();
    spit("/data/in/server.der", std::string(der.begin(), der.end()));
    spit("/data/in/psk.txt", "dev1:00112233445566778899aabbccddeeff\n|a:b|:0102\n");
  }

  cg::Credential ca_;
};

// ---------------------------------------------------------------------------------------
// Help and command-line refusals

class CliHelp : public CliTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(CliHelp, EveryCommandPrintsItsUsageAndExitsZero) {
  const CliRun r = cli({GetParam(), "--help"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out.rfind(std::string("usage: kora-ssl-store ") + GetParam(), 0), 0u) << r.out;
  EXPECT_TRUE(r.err.empty());
}

INSTANTIATE_TEST_SUITE_P(Commands, CliHelp,
                         ::testing::Values("init", "put", "ls", "rm", "der2pem", "connect", "serve", "demo"));

struct Refusal {
  const char* label;
  std::vector<std::string> args;
  int code;
  const char* stderr_has;
};

void PrintTo(const Refusal& r, std::ostream* os) { *os << r.label; }

class CliRefusal : public CliTest, public ::testing::WithParamInterface<Refusal> {};

// Each refusal is one line on stderr naming the reason, with no store file written.
TEST_P(CliRefusal, SaysWhyInOneLineAndStoresNothing) {
  init();
  make_pki();
  const Refusal& c = GetParam();
  const CliRun r = cli(c.args);
  EXPECT_EQ(r.code, c.code) << r.err;
  EXPECT_NE(r.err.find(c.stderr_has), std::string::npos) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(r.err.rfind("kora-ssl-store ", 0), 0u) << r.err;
  const CliRun ls = cli({"ls"});
  EXPECT_EQ(ls.code, 0) << ls.err;
  EXPECT_EQ(ls.out, "");
}

const std::string k64(64, 'n');

INSTANTIATE_TEST_SUITE_P(
    Cases, CliRefusal,
    ::testing::Values(
        Refusal{
            "slash", {"put", "ca", "../x", "/data/in/ca.pem"}, 2, "refusing name '../x': it contains \"/\""},
        Refusal{"dotdot",
                {"put", "di", "a..b", "/data/in/server.pem"},
                2,
                "refusing name 'a..b': it contains \"..\""},
        Refusal{"too_long", {"put", "ca", k64, "/data/in/ca.pem"}, 2, "it has 64 characters, at most 63"},
        Refusal{"empty", {"put", "ca", "", "/data/in/ca.pem"}, 2, "it is empty"},
        Refusal{"rm_slash", {"rm", "cert", "a/b"}, 2, "refusing name 'a/b'"},
        Refusal{"connect_name", {"connect", "127.0.0.1:1", "--ca", ".."}, 2, "refusing --ca name '..'"},
        Refusal{"wrong_kind",
                {"put", "key", "x", "/data/in/ca.pem"},
                2,
                "unknown kind 'key': use cert, ca, psk or di"},
        Refusal{"rm_wrong_kind", {"rm", "session", "x"}, 2, "unknown kind 'session'"},
        Refusal{"unknown_option", {"ls", "--all"}, 2, "unknown option --all"},
        Refusal{"cert_needs_key",
                {"put", "cert", "x", "--cert", "/data/in/server.pem"},
                2,
                "needs both --cert FILE and --key FILE"},
        Refusal{
            "psk_with_cert", {"connect", "h:1", "--psk", "p", "--cert", "c"}, 2, "--psk cannot be combined"},
        Refusal{"bad_port", {"connect", "127.0.0.1:99999"}, 2, "port '99999'"},
        Refusal{"missing_file", {"put", "ca", "x", "/data/in/none.pem"}, 1, "cannot read /data/in/none.pem"},
        Refusal{"ca_not_pem",
                {"put", "ca", "x", "/data/in/server.der"},
                1,
                "is not a PEM list of CA certificates"},
        Refusal{"di_not_cert", {"put", "di", "x", "/data/in/psk.txt"}, 1, "holds no certificate"},
        Refusal{"key_mismatch",
                {"put", "cert", "x", "--cert", "/data/in/server.pem", "--key", "/data/in/client.key"},
                1,
                "is not the private key of the certificate"},
        Refusal{"psk_malformed", {"put", "psk", "x", "/data/in/ca.pem"}, 1, "store status -1 (KORA_ERROR)"},
        Refusal{"rm_missing", {"rm", "ca", "nothing"}, 1, "no CA list named 'nothing' in the store"},
        Refusal{"load_missing",
                {"serve", "1", "--cert", "nothing"},
                1,
                "no certificate named 'nothing' in the store"}),
    [](const ::testing::TestParamInfo<Refusal>& p) { return std::string(p.param.label); });

TEST_F(CliTest, CommandsOnAnUninitialisedStoreAskForInit) {
  make_pki();
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"ls"}, {"put", "ca", "x", "/data/in/ca.pem"}, {"rm", "ca", "x"}}) {
    const CliRun r = cli(args);
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("run 'kora-ssl-store init' first"), std::string::npos) << r.err;
  }
  // Nothing was provisioned behind the user's back.
  EXPECT_FALSE(exists(std::string(kStore) + "keyblob/takey.blob"));
}

TEST_F(CliTest, InitWithoutDataRootFailsAndCreatesNothing) {
  ASSERT_EQ(::rmdir("/data/data_velto"), 0);
  const CliRun r = cli({"init"});
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("the data root /data/data_velto/ does not exist"), std::string::npos) << r.err;
  EXPECT_FALSE(exists("/data/data_velto"));
}

// ---------------------------------------------------------------------------------------
// Happy paths

TEST_F(CliTest, StoresListsConvertsAndRemovesEveryKind) {
  make_pki();
  CliRun r = cli({"init"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("new key material provisioned"), std::string::npos);
  r = cli({"init"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("existing key material loaded"), std::string::npos);
  EXPECT_TRUE(r.err.empty()) << "mkdir noise leaked: " << r.err;

  const std::vector<std::vector<std::string>> puts = {
      {"put", "cert", "srv", "--cert", "/data/in/server.pem", "--key", "/data/in/server.key"},
      {"put", "ca", "roots", "/data/in/ca.pem"},
      {"put", "di", "ident", "/data/in/server.der"},
      {"put", "psk", "lab", "/data/in/psk.txt"},
  };
  for (const auto& args : puts) {
    r = cli(args);
    EXPECT_EQ(r.code, 0) << args[1] << ": " << r.err;
  }
  // Sealed at rest: no stored file holds the plain text it was given.
  const std::string key_file = slurp(std::string(kStore) + "private_keys/srv");
  EXPECT_FALSE(key_file.empty());
  EXPECT_EQ(key_file.find("PRIVATE KEY"), std::string::npos);
  EXPECT_EQ(slurp(std::string(kStore) + "ca_lists/roots").find("BEGIN CERTIFICATE"), std::string::npos);
  EXPECT_EQ(slurp(std::string(kStore) + "psk_table/lab").find("dev1"), std::string::npos);

  r = cli({"ls"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "cert srv\nca   roots\npsk  lab\ndi   ident\n");
  r = cli({"ls", "psk"});
  EXPECT_EQ(r.out, "psk  lab\n");

  r = cli({"der2pem", "/data/in/server.der", "/data/in/out.pem"});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(slurp("/data/in/out.pem"), slurp("/data/in/server.pem"));
  r = cli({"der2pem", "/data/in/server.pem"});
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("is not a DER certificate"), std::string::npos);

  for (const char* kind : {"cert", "ca", "di", "psk"}) {
    const std::string name = std::string(kind) == "cert" ? "srv"
                             : std::string(kind) == "ca" ? "roots"
                             : std::string(kind) == "di" ? "ident"
                                                         : "lab";
    r = cli({"rm", kind, name});
    EXPECT_EQ(r.code, 0) << kind << ": " << r.err;
  }
  EXPECT_FALSE(exists(std::string(kStore) + "private_keys/srv"));
  EXPECT_EQ(cli({"ls"}).out, "");
}

TEST_F(CliTest, VerboseShowsTheStoreMessagesAndQuietKeepsThemBack) {
  init();
  CliRun r = cli({"-v", "ls"});
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.err.find("HIGH ssl_store:"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("SSL_cert_store: Successfully genereated Keyblob"), std::string::npos) << r.err;
  r = cli({"rm", "ca", "gone"});
  EXPECT_EQ(r.code, 1);
  // Without -v the store's error message for the missing file is kept back.
  EXPECT_EQ(r.err.find("ERROR ssl_store:"), std::string::npos) << r.err;
}

// ---------------------------------------------------------------------------------------
// Handshakes: serve and connect against each other

class CliHandshake : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    init();
    make_pki();
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"put", "cert", "srv", "--cert", "/data/in/server.pem", "--key", "/data/in/server.key"},
             {"put", "cert", "cli", "--cert", "/data/in/client.pem", "--key", "/data/in/client.key"},
             {"put", "ca", "roots", "/data/in/ca.pem"},
             {"put", "ca", "other", "/data/in/other.pem"}}) {
      ASSERT_EQ(cli(args).code, 0);
    }
  }

  // Runs "serve PORT --cert srv [server_extra] --once" and then "connect" with client_args.
  void handshake(const std::vector<std::string>& server_extra, const std::vector<std::string>& client_args) {
    const std::string port = std::to_string(free_port());
    std::vector<std::string> sargs = {"serve", port, "--cert", "srv", "--once"};
    sargs.insert(sargs.end(), server_extra.begin(), server_extra.end());
    const pid_t server = start(sargs, "serve");
    ASSERT_GT(server, 0);
    for (int i = 0; i < 200 && slurp("/data/cli-serve.out").find("listening") == std::string::npos; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::vector<std::string> cargs = {"connect", "127.0.0.1:" + port};
    cargs.insert(cargs.end(), client_args.begin(), client_args.end());
    client_ = cli(cargs);
    server_ = finish(server, "serve");
  }

  CliRun client_;
  CliRun server_;
};

TEST_F(CliHandshake, MutualAuthenticationReportsBothSides) {
  handshake({"--ca", "roots"}, {"--cert", "cli", "--ca", "roots", "--tls1.2"});
  EXPECT_EQ(client_.code, 0) << client_.err;
  EXPECT_NE(client_.out.find("protocol:      TLSv1.2"), std::string::npos) << client_.out;
  EXPECT_NE(client_.out.find("test-server"), std::string::npos) << client_.out;
  EXPECT_NE(client_.out.find("verification:  ok"), std::string::npos) << client_.out;
  EXPECT_EQ(server_.code, 0) << server_.err;
  EXPECT_NE(server_.out.find("test-client"), std::string::npos) << server_.out;
  EXPECT_NE(server_.out.find("verification:  ok"), std::string::npos) << server_.out;
}

TEST_F(CliHandshake, WrongCaIsRefusedWithTheVerificationReason) {
  handshake({}, {"--ca", "other", "--tls1.3"});
  EXPECT_EQ(client_.code, 1);
  EXPECT_NE(client_.err.find("TLS handshake with 127.0.0.1:"), std::string::npos) << client_.err;
  EXPECT_NE(client_.err.find("server certificate failed: unable to get local issuer certificate"),
            std::string::npos)
      << client_.err;
  EXPECT_EQ(server_.code, 1);
}

// Our side is the PSK client; the openssl tool is the server and knows the first identity.
struct PskVersion {
  const char* cli_flag;
  const char* server_flag;
  const char* protocol;
};

void PrintTo(const PskVersion& v, std::ostream* os) { *os << v.protocol; }

class CliPsk : public CliTest, public ::testing::WithParamInterface<PskVersion> {};

TEST_P(CliPsk, ConnectsWithAStoredTableToAPlainPskServer) {
  init();
  make_pki();
  ASSERT_EQ(cli({"put", "psk", "lab", "/data/in/psk.txt"}).code, 0);
  const std::string port = std::to_string(free_port());
  std::vector<std::string> sargs = {"openssl",           "s_server", "-accept",
                                    "127.0.0.1:" + port, "-naccept", "1",
                                    "-nocert",           "-psk",     "00112233445566778899aabbccddeeff",
                                    "-psk_identity",     "dev1",     GetParam().server_flag};
  std::vector<char*> argv;
  for (std::string& a : sargs) {
    argv.push_back(a.data());
  }
  argv.push_back(nullptr);
  // The server's stdin stays open until the end: at end of input it would drop the client.
  int input[2];
  ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, input[0], 0);
  posix_spawn_file_actions_addopen(&fa, 1, "/data/s_server.out", O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  pid_t server = -1;
  ASSERT_EQ(posix_spawnp(&server, "openssl", &fa, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&fa);
  for (int i = 0; i < 250 && slurp("/data/s_server.out").find("ACCEPT") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const CliRun r = cli({"connect", "127.0.0.1:" + port, "--psk", "lab", GetParam().cli_flag});
  ::kill(server, SIGTERM);
  int status = 0;
  waitpid(server, &status, 0);
  ::close(input[0]);
  ::close(input[1]);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find(std::string("protocol:      ") + GetParam().protocol), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("verification:  not applicable (PSK)"), std::string::npos) << r.out;
}

INSTANTIATE_TEST_SUITE_P(Versions, CliPsk,
                         ::testing::Values(PskVersion{"--tls1.2", "-tls1_2", "TLSv1.2"},
                                           PskVersion{"--tls1.3", "-tls1_3", "TLSv1.3"}));

TEST_F(CliTest, ListingStopsAtTenNamesAndSaysSo) {
  init();
  make_pki();
  for (int i = 0; i < 11; ++i) {
    ASSERT_EQ(cli({"put", "ca", "ca" + std::to_string(i), "/data/in/ca.pem"}).code, 0);
  }
  const CliRun r = cli({"ls", "ca"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 10) << r.out;
  EXPECT_NE(r.err.find("at most 10 names per kind"), std::string::npos) << r.err;
}

// ---------------------------------------------------------------------------------------
// A tampered sealed file: a clear error naming the credential, and nothing loaded.

struct Tamper {
  const char* label;
  const char* file;  // below the store root
  std::vector<std::string> args;
  const char* stderr_has;
};

void PrintTo(const Tamper& t, std::ostream* os) { *os << t.label; }

class CliTamper : public CliHandshake, public ::testing::WithParamInterface<Tamper> {};

TEST_P(CliTamper, FailsClearlyAndLoadsNothing) {
  const Tamper& t = GetParam();
  const std::string path = std::string(kStore) + t.file;
  std::string bytes = slurp(path);
  ASSERT_GT(bytes.size(), 20u);
  bytes[bytes.size() / 2] ^= 0x01;
  spit(path, bytes);
  const CliRun r = cli(t.args);
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find(t.stderr_has), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("store status -1 (KORA_ERROR)"), std::string::npos) << r.err;
  // No connection was attempted and the CA list's plain temporary file is gone.
  EXPECT_EQ(r.out.find("listening"), std::string::npos);
  EXPECT_FALSE(exists(std::string(kStore) + "temp"));
}

INSTANTIATE_TEST_SUITE_P(Files, CliTamper,
                         ::testing::Values(Tamper{"ca_list",
                                                  "ca_lists/roots",
                                                  {"connect", "127.0.0.1:1", "--ca", "roots"},
                                                  "loading CA list 'roots' failed"},
                                           Tamper{"certificate",
                                                  "certs/srv",
                                                  {"serve", "1", "--cert", "srv"},
                                                  "loading certificate 'srv' failed"},
                                           Tamper{"private_key",
                                                  "private_keys/cli",
                                                  {"connect", "127.0.0.1:1", "--cert", "cli"},
                                                  "loading certificate 'cli' failed"},
                                           Tamper{"key_blob",
                                                  "keyblob/takey.blob",
                                                  {"serve", "1", "--cert", "srv"},
                                                  "loading certificate 'srv' failed"}),
                         [](const ::testing::TestParamInfo<Tamper>& p) {
                           return std::string(p.param.label);
                         });

// ---------------------------------------------------------------------------------------
// The demo leaves the host as it found it.

std::vector<std::string> tree(const std::string& root) {
  std::vector<std::string> out;
  FILE* p = ::popen(("find " + root + " -printf '%p %s\\n' 2>/dev/null | sort").c_str(), "r");
  char line[1024];
  while (p != nullptr && std::fgets(line, sizeof(line), p) != nullptr) {
    out.emplace_back(line);
  }
  if (p != nullptr) {
    ::pclose(p);
  }
  return out;
}

TEST_F(CliTest, DemoOnAMissingDataRootCreatesAndRemovesIt) {
  ASSERT_EQ(::rmdir("/data/data_velto"), 0);
  const CliRun r = cli({"demo"});
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("demo passed"), std::string::npos);
  EXPECT_EQ(r.out.find("[FAIL]"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("server checked against the wrong CA"), std::string::npos);
  EXPECT_FALSE(exists("/data/data_velto"));
  // No root key existed, so the demo used a temporary one and kept none.
  EXPECT_FALSE(exists("/data/km/root.key"));
}

TEST_F(CliTest, DemoOnAnEmptyDataRootRemovesTheTreeAndKeyMaterialItMade) {
  const CliRun r = cli({"demo"});
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_TRUE(exists("/data/data_velto"));
  const std::vector<std::string> left = tree("/data/data_velto");  // the root itself only
  EXPECT_EQ(left.size(), 1u) << ::testing::PrintToString(left);
}

TEST_F(CliTest, DemoOnAnExistingStoreTouchesOnlyItsOwnNames) {
  init();
  make_pki();
  ASSERT_EQ(cli({"put", "ca", "mine", "/data/in/ca.pem"}).code, 0);
  const std::vector<std::string> before = tree("/data/data_velto");
  const CliRun r = cli({"demo"});
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_EQ(tree("/data/data_velto"), before);
  EXPECT_EQ(cli({"ls"}).out, "ca   mine\n");
}

TEST_F(CliTest, DemoRefusesAKeyBlobWhoseRootKeyIsGone) {
  init();
  ASSERT_EQ(::unlink("/data/km/root.key"), 0);
  const std::vector<std::string> before = tree("/data/data_velto");
  const CliRun r = cli({"demo"});
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("root key /data/km/root.key is missing"), std::string::npos) << r.err;
  EXPECT_EQ(tree("/data/data_velto"), before);
  EXPECT_FALSE(exists("/data/km/root.key"));
}

TEST_F(CliTest, DemoRefusesWhenOneOfItsNamesIsTaken) {
  init();
  make_pki();
  ASSERT_EQ(cli({"put", "ca", "kora-demo-ca", "/data/in/ca.pem"}).code, 0);
  const std::string sealed = slurp(std::string(kStore) + "ca_lists/kora-demo-ca");
  const CliRun r = cli({"demo"});
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("already holds CA list 'kora-demo-ca'"), std::string::npos) << r.err;
  EXPECT_EQ(slurp(std::string(kStore) + "ca_lists/kora-demo-ca"), sealed);
}

}  // namespace
