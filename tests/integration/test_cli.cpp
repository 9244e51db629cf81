// kora-ssl-store as a user runs it: a spawned process on the case's private store root, working
// in /data/in where the user's input files are.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

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

// Power lost between a certificate's two files leaves one: rm removes either half cleanly.
TEST_F(Cli, RemovesEitherHalfOfACertificateThatACutLeft) {
  provision();
  ASSERT_EQ(::unlink((kStore + "private_keys/srv").c_str()) | ::unlink((kStore + "certs/cli").c_str()), 0);
  for (const char* command : {"rm cert srv", "rm cert cli"}) {
    const Result r = cli(command);
    EXPECT_EQ(r.code, 0) << command << ": " << r.err;
  }
  EXPECT_FALSE(fs::exists(kStore + "certs/srv") || fs::exists(kStore + "private_keys/cli"));
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
    {"dotdot", true, "put di a..b server.pem", 2, "refusing name 'a..b': it contains \"..\""},
    {"connect_name", true, "connect 127.0.0.1:1 --ca ..", 2, "refusing --ca name '..'"},
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

}  // namespace
}  // namespace kora::test
