// kora-ssl-store as a user runs it: a spawned process on the case's private store root, working
// in /data/in where the user's input files are.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "cli_tool.h"
#include "kora_certgen.h"

namespace kora::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
const std::string kStore = "/data/data_velto/.ssl/";
const auto kLabel = [](const auto& p) { return std::string(p.param.label); };

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
    const auto write = [](const char* name, const std::string& bytes) { std::ofstream(name) << bytes; };
    write("ca.pem", ca.cert_pem());
    write("server.pem", server.cert_pem());
    write("server.key", server.key_pem());
    write("client.pem", client.cert_pem());
    write("client.key", client.key_pem());
    write("server.der", std::string(der.begin(), der.end()));
    write("psk.txt", "dev1:00112233445566778899aabbccddeeff\n|a:b|:0102\n");
  }
  static void provision() {
    for (const char* command : {"init", "put cert srv --cert server.pem --key server.key",
                                "put cert cli --cert client.pem --key client.key", "put ca roots ca.pem"}) {
      ASSERT_EQ(cli(command).code, 0) << command;
    }
  }
};

TEST_F(Cli, StoresListsConvertsAndRemovesEveryKindSealedAtRest) {
  Result r = cli("init");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("new key material provisioned"), std::string::npos);
  r = cli("init");
  EXPECT_NE(r.out.find("existing key material loaded"), std::string::npos);
  EXPECT_EQ(r.err, "");
  for (const char* command : {"put cert srv --cert server.pem --key server.key", "put ca roots ca.pem",
                              "put di ident server.der", "put psk lab psk.txt"}) {
    EXPECT_EQ(cli(command).code, 0) << command;
  }
  EXPECT_EQ(slurp(kStore + "private_keys/srv").find("PRIVATE KEY"), std::string::npos);
  EXPECT_EQ(slurp(kStore + "ca_lists/roots").find("BEGIN CERTIFICATE"), std::string::npos);
  EXPECT_EQ(slurp(kStore + "psk_table/lab").find("dev1"), std::string::npos);
  EXPECT_EQ(cli("ls").out, "cert srv\nca   roots\npsk  lab\ndi   ident\n");
  r = cli("-v ls psk");
  EXPECT_EQ(r.out, "psk  lab\n");
  EXPECT_NE(r.err.find("SSL_cert_store: Successfully genereated Keyblob"), std::string::npos) << r.err;

  EXPECT_EQ(cli("der2pem server.der out.pem").code, 0);
  EXPECT_EQ(slurp("out.pem"), slurp("server.pem"));
  for (const char* command : {"rm cert srv", "rm ca roots", "rm di ident", "rm psk lab"}) {
    EXPECT_EQ(cli(command).code, 0) << command;
  }
  EXPECT_FALSE(fs::exists(kStore + "private_keys/srv"));
  EXPECT_EQ(cli("ls").out, "");
}

TEST_F(Cli, ServeAndConnectAuthenticateEachOtherWithStoredCredentials) {
  provision();
  int port = 0;
  ::close(listen_loopback(&port));  // a free port, for the server to take
  auto server = start("serve " + std::to_string(port) + " --cert srv --ca roots --once", "/data/serve.err");
  ASSERT_NE(server->wait_for_line("listening on port", 10s), "") << slurp("/data/serve.err");
  const Result client = cli("connect 127.0.0.1:" + std::to_string(port) + " --cert cli --ca roots --tls1.2");
  EXPECT_EQ(client.code, 0) << client.err;
  EXPECT_NE(client.out.find("protocol:      TLSv1.2"), std::string::npos) << client.out;
  EXPECT_NE(client.out.find("test-server"), std::string::npos) << client.out;
  EXPECT_NE(client.out.find("verification:  ok"), std::string::npos) << client.out;
  EXPECT_EQ(server->wait_exit(10s), 0) << slurp("/data/serve.err");
  EXPECT_NE(server->output().find("test-client"), std::string::npos) << server->output();
  EXPECT_NE(server->output().find("verification:  ok"), std::string::npos) << server->output();
}

struct Refusal {
  const char* label;
  bool init;
  const char* command;
  int code;
  const char* says;
};
void PrintTo(const Refusal& r, std::ostream* os) { *os << r.label; }
class CliRefusal : public Cli, public ::testing::WithParamInterface<Refusal> {};

// One line on stderr naming the reason, and nothing written anywhere.
TEST_P(CliRefusal, SaysWhyInOneLineAndWritesNothing) {
  if (GetParam().init) {
    ASSERT_EQ(cli("init").code, 0);
  }
  const auto before = snapshot();
  const Result r = cli(GetParam().command);
  EXPECT_EQ(r.code, GetParam().code) << r.err;
  EXPECT_EQ(r.err.rfind("kora-ssl-store ", 0), 0u) << r.err;
  EXPECT_NE(r.err.find(GetParam().says), std::string::npos) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(snapshot(), before);
}

const Refusal kRefusals[] = {
    {"slash", true, "put ca ../x ca.pem", 2, "refusing name '../x': it contains \"/\""},
    {"dotdot", true, "put di .. server.pem", 2, "refusing name '..': \"..\" names a directory"},
    {"dot", true, "rm ca .", 2, "refusing name '.': \".\" names a directory"},
    {"escape_sequence_in_name", true, "put ca a\x1b[2Jb ca.pem", 2,
     "refusing name 'a\\x1b[2Jb': it contains the byte \\x1b"},
    {"connect_name", true, "connect 127.0.0.1:1 --ca ..", 2, "--ca: refusing name '..'"},
    {"wrong_kind", true, "put key x ca.pem", 2, "unknown kind 'key': use cert, ca, psk or di"},
    {"unknown_option", true, "ls --all", 2, "unknown option --all"},
    {"uninitialised", false, "put ca x ca.pem", 1, "run 'kora-ssl-store init' first"},
    {"missing_file", true, "put ca x none.pem", 1, "cannot read none.pem"},
    {"ca_not_pem", true, "put ca x server.der", 1, "is not a PEM list of CA certificates"},
    {"di_not_cert", true, "put di x psk.txt", 1, "holds no certificate"},
    {"key_mismatch", true, "put cert x --cert server.pem --key client.key", 1, "is not the private key of"},
    {"psk_malformed", true, "put psk x ca.pem", 1, "store status -1 (KORA_ERROR)"},
    {"not_der", true, "der2pem server.pem", 1, "is not a DER certificate"},
    {"rm_missing", true, "rm ca nothing", 1, "no CA list named 'nothing' in the store"},
    {"load_missing", true, "serve 1 --cert nothing", 1, "no certificate named 'nothing' in the store"},
};
INSTANTIATE_TEST_SUITE_P(Cases, CliRefusal, ::testing::ValuesIn(kRefusals), kLabel);

struct Tamper {
  const char* label;
  const char* file;  // below the store root
  const char* command;
  const char* says;
};
void PrintTo(const Tamper& t, std::ostream* os) { *os << t.label; }
class CliTamper : public Cli, public ::testing::WithParamInterface<Tamper> {};

// One flipped bit in a sealed file: a clear error naming the credential, and nothing loaded.
TEST_P(CliTamper, FailsClearlyAndLoadsNothing) {
  provision();
  std::string bytes = slurp(kStore + GetParam().file);
  ASSERT_GT(bytes.size(), 20u);
  bytes[bytes.size() / 2] ^= 0x01;
  std::ofstream(kStore + GetParam().file, std::ios::binary) << bytes;
  const Result r = cli(GetParam().command);
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find(GetParam().says), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("store status -1 (KORA_ERROR)"), std::string::npos) << r.err;
  EXPECT_EQ(r.out.find("listening"), std::string::npos);
  EXPECT_FALSE(fs::exists(kStore + "temp")) << "the CA list's plain temporary file was left";
}

const Tamper kTampers[] = {
    {"ca_list", "ca_lists/roots", "connect 127.0.0.1:1 --ca roots", "loading CA list 'roots' failed"},
    {"certificate", "certs/srv", "serve 1 --cert srv", "loading certificate 'srv' failed"},
    {"private_key", "private_keys/cli", "connect 127.0.0.1:1 --cert cli --insecure",
     "loading certificate 'cli' failed"},
    {"key_blob", "keyblob/takey.blob", "serve 1 --cert srv", "loading certificate 'srv' failed"},
};
INSTANTIATE_TEST_SUITE_P(Files, CliTamper, ::testing::ValuesIn(kTampers), kLabel);

struct Demo {
  const char* label;
  std::vector<const char*> setup;  // commands run first
  const char* removed;             // then this path is removed
  int code;
  const char* says;
};
void PrintTo(const Demo& d, std::ostream* os) { *os << d.label; }
class CliDemo : public Cli, public ::testing::WithParamInterface<Demo> {};

// Whether it passes or refuses, the demo leaves the data root and the key directory as it found them.
TEST_P(CliDemo, LeavesTheHostAsFound) {
  for (const char* command : GetParam().setup) {
    ASSERT_EQ(cli(command).code, 0) << command;
  }
  ASSERT_TRUE(fs::remove(GetParam().removed) || GetParam().removed[0] == '\0');
  const auto before = snapshot();
  const Result r = cli("demo");
  EXPECT_EQ(r.code, GetParam().code) << r.out << r.err;
  EXPECT_NE((r.out + r.err).find(GetParam().says), std::string::npos) << r.out << r.err;
  EXPECT_EQ(r.out.find("[FAIL]"), std::string::npos) << r.out;
  EXPECT_EQ(snapshot(), before);
}

const Demo kDemos[] = {
    {"missing_root", {}, "/data/data_velto", 0, "demo passed"},
    {"empty_root", {}, "", 0, "demo passed"},
    {"existing_store", {"init", "put ca mine ca.pem"}, "", 0, "demo passed"},
    {"root_key_gone", {"init"}, "/data/km/root.key", 1, "root key /data/km/root.key is missing"},
    {"name_taken", {"init", "put ca kora-demo-ca ca.pem"}, "", 1, "already holds CA list 'kora-demo-ca'"},
};
INSTANTIATE_TEST_SUITE_P(Hosts, CliDemo, ::testing::ValuesIn(kDemos), kLabel);

// Threats from outside the tool: other users, planted files, other processes, signals.
enum class Plant { kFifo, kSymlink, kOtherOwner, kOthersWrite };
struct Planted {
  const char* label;
  Plant plant;
  const char* path;  // below the data root
  const char* command;
  const char* says;
};
void PrintTo(const Planted& p, std::ostream* os) { *os << p.label; }
class CliPlanted : public Cli, public ::testing::WithParamInterface<Planted> {};

// Something planted where the store expects its own regular file or private directory is
// refused before the store opens it: no command blocks on a FIFO or follows a link.
TEST_P(CliPlanted, IsRefusedWithoutBlockingOrChangingAnything) {
  provision();
  const std::string path = std::string("/data/data_velto/") + GetParam().path;
  if (GetParam().plant == Plant::kFifo || GetParam().plant == Plant::kSymlink) {
    fs::remove(path);
  }
  const int planted = GetParam().plant == Plant::kFifo         ? ::mkfifo(path.c_str(), 0600)
                      : GetParam().plant == Plant::kSymlink    ? ::symlink("/data/in/ca.pem", path.c_str())
                      : GetParam().plant == Plant::kOtherOwner ? ::chown(path.c_str(), 65534, 65534)
                                                               : ::chmod(path.c_str(), 0777);
  ASSERT_EQ(planted, 0) << path;
  const auto before = snapshot();
  const Result r = cli(GetParam().command);  // bounded: a hang shows as code -1
  EXPECT_EQ(r.code, 1) << r.err;
  EXPECT_NE(r.err.find(GetParam().says), std::string::npos) << r.err;
  EXPECT_EQ(snapshot(), before);
}

const Planted kPlants[] = {
    {"fifo_at_ca_list", Plant::kFifo, ".ssl/ca_lists/roots", "connect 127.0.0.1:1 --ca roots",
     "roots is a FIFO"},
    {"fifo_at_private_key", Plant::kFifo, ".ssl/private_keys/cli",
     "connect 127.0.0.1:1 --cert cli --insecure", "a FIFO"},
    {"fifo_at_put_target", Plant::kFifo, ".ssl/ca_lists/new", "put ca new ca.pem", "new is a FIFO"},
    {"fifo_at_rm_target", Plant::kFifo, ".ssl/certs/srv", "rm cert srv", "srv is a FIFO"},
    {"fifo_at_key_blob", Plant::kFifo, ".ssl/keyblob/takey.blob", "ls", "takey.blob is a FIFO"},
    {"fifo_at_nonce", Plant::kFifo, ".ssl/keyblob/takey.nonce", "init", "takey.nonce is a FIFO"},
    {"link_at_certificate", Plant::kSymlink, ".ssl/certs/srv", "serve 1 --cert srv",
     "srv is a symbolic link"},
    {"link_in_tree", Plant::kSymlink, ".ssl/ca_lists/roots", "init", "roots is a symbolic link"},
    {"data_root_of_another_user", Plant::kOtherOwner, "", "init", "belongs to user 65534"},
    {"store_of_another_user", Plant::kOtherOwner, ".ssl/", "init", ".ssl/ belongs to user 65534"},
    {"credential_of_another_user", Plant::kOtherOwner, ".ssl/ca_lists/roots", "init",
     "belongs to user 65534"},
    {"data_root_open_to_all", Plant::kOthersWrite, "", "init", "writable by other users (mode 0777)"},
};
INSTANTIATE_TEST_SUITE_P(Files, CliPlanted, ::testing::ValuesIn(kPlants), kLabel);

// A name planted in the store by hand reaches the terminal escaped.
TEST_F(Cli, LsEscapesANamePlantedInTheStore) {
  provision();
  std::ofstream(kStore + "ca_lists/evil\x1b[2J\n") << "x";
  const std::string out = cli("ls ca").out;
  EXPECT_NE(out.find("ca   evil\\x1b[2J\\x0a\n"), std::string::npos) << out;
}

// Another user: whatever the umask, nothing in the tree is open to them, and init closes a
// tree an older version left open.
TEST_F(Cli, NothingInTheTreeIsOpenToAnotherUserWhateverTheUmask) {
  const mode_t saved = ::umask(0);
  ASSERT_EQ(::mkdir(kStore.c_str(), 0755) | ::mkdir((kStore + "ca_lists").c_str(), 0777), 0);
  provision();
  ::umask(saved);
  for (const auto& e : fs::recursive_directory_iterator(kStore)) {
    EXPECT_EQ(e.status().permissions() & (fs::perms::group_all | fs::perms::others_all), fs::perms::none)
        << e.path();
  }
  ASSERT_EQ(::seteuid(65534), 0);
  const int fd = ::open((kStore + "ca_lists/roots").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_LT(fd, 0) << "another user opened a sealed CA list";
}

// Another user plants a link where der2pem writes: the link's target is never written.
TEST_F(Cli, Der2pemNeverWritesThroughALinkAnotherUserPlanted) {
  ASSERT_EQ(::mkdir("/data/shared", 0755) | ::chown("/data/shared", 65534, 65534), 0);
  std::ofstream("/data/victim") << "precious";
  ASSERT_EQ(::seteuid(65534), 0);
  const int planted = ::symlink("/data/victim", "/data/shared/out.pem");
  ASSERT_EQ(::seteuid(0), 0);
  ASSERT_EQ(planted, 0);
  const Result r = cli("der2pem server.der /data/shared/out.pem");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("/data/shared/out.pem exists; give --force to replace it"), std::string::npos)
      << r.err;
  EXPECT_EQ(cli("der2pem server.der /data/shared/out.pem --force").code, 0);
  EXPECT_EQ(slurp("/data/victim"), "precious");
  EXPECT_FALSE(fs::is_symlink("/data/shared/out.pem"));
  EXPECT_EQ(slurp("/data/shared/out.pem"), slurp("server.pem"));
}

// Another process: a client that connects and sends nothing holds the server only until its
// handshake times out (10 s by default); the next client is served.
TEST_F(Cli, AnIdleClientDoesNotKeepOthersFromTheServer) {
  provision();
  int port = 0;
  ::close(listen_loopback(&port));
  auto server = start("serve " + std::to_string(port) + " --cert srv", "/data/serve.err");
  ASSERT_NE(server->wait_for_line("listening on port " + std::to_string(port) + " at 127.0.0.1", 10s), "")
      << slurp("/data/serve.err");
  const int idle = connect_loopback(port);
  const Result client = cli("connect 127.0.0.1:" + std::to_string(port) + " --ca roots");
  ::close(idle);
  EXPECT_EQ(client.code, 0) << client.err;
}

class CliDemoSignal : public Cli, public ::testing::WithParamInterface<int> {};

// A signal once the demo has stored its credentials: it still removes all it made.
TEST_P(CliDemoSignal, KilledMidRunLeavesTheHostAsFound) {
  const auto before = snapshot();
  auto demo = start("demo", "/data/demo.err");
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (!fs::exists(kStore + "certs/kora-demo-server") && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  ASSERT_EQ(::kill(demo->pid(), GetParam()), 0);
  EXPECT_EQ(demo->wait_exit(30s), 128 + GetParam()) << slurp("/data/demo.err");
  EXPECT_EQ(snapshot(), before);
}
INSTANTIATE_TEST_SUITE_P(Signals, CliDemoSignal, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

}  // namespace
}  // namespace kora::test
