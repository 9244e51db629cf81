// demo: the whole path on the device's store, from init to loopback handshakes and back.
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli_input.h"
#include "cli_keys.h"
#include "cli_names.h"
#include "cli_report.h"
#include "cli_session.h"
#include "cli_stored.h"
#include "commands.h"
#include "demo_host.h"
#include "demo_loopback.h"
#include "kora_certgen.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

namespace cg = kora::certgen;

constexpr const char* kCaName = "kora-demo-ca";
constexpr const char* kWrongCaName = "kora-demo-wrong-ca";
constexpr const char* kServerName = "kora-demo-server";
constexpr const char* kClientName = "kora-demo-client";
constexpr const char* kDeviceName = "kora-demo-device";
constexpr const char* kPskName = "kora-demo-psk";
constexpr const char* kPskIdentity = "kora-demo-psk";
// Key sizes of the demo's two PSK entries, and room for the whole table text (never outgrown).
constexpr size_t kPskKeyBytes = 32;
constexpr size_t kSparePskKeyBytes = 16;
constexpr size_t kPskTextCapacity = 256;
// Column widths of the result table.
constexpr int kStepWidth = 62;
constexpr int kExpectedWidth = 16;

struct DemoName {
  const char* name;
  kora_Net_SSL_Cert_Type_t type;
};
constexpr DemoName kDemoNames[] = {
    {kCaName, KORA_NET_SSL_CA_LIST_E},         {kWrongCaName, KORA_NET_SSL_CA_LIST_E},
    {kServerName, KORA_NET_SSL_CERTIFICATE_E}, {kClientName, KORA_NET_SSL_CERTIFICATE_E},
    {kDeviceName, KORA_NET_SSL_DI_CERT_E},     {kPskName, KORA_NET_SSL_PSK_TABLE_E},
};

struct Row {
  std::string step;
  std::string expected;
  std::string outcome;
  bool pass;
};

// Throw-away credentials, made in memory for this run only.
struct Material {
  cg::Credential ca;
  cg::Credential wrong_ca;
  cg::Credential server;
  cg::Credential client;
  cg::Credential device;
  PskPeer psk;
  std::string psk_text;

  ~Material() {
    OPENSSL_cleanse(psk_text.data(), psk_text.size());
    OPENSSL_cleanse(psk.key.data(), psk.key.size());
  }
};

// Appends in place: no temporary string holds the key's digits.
void append_hex(std::string* out, const std::vector<unsigned char>& bytes) {
  static const char digits[] = "0123456789abcdef";
  for (unsigned char b : bytes) {
    out->push_back(digits[b >> 4]);
    out->push_back(digits[b & 0xf]);
  }
}

void make_material(Material* m) {
  cg::CertSpec ca_spec;
  ca_spec.subject = {{"CN", "Kora Demo CA"}, {"O", "Kora demo"}};
  ca_spec.is_ca = true;
  m->ca = cg::make_self_signed(ca_spec);
  ca_spec.subject = {{"CN", "Kora Demo Other CA"}, {"O", "Kora demo"}};
  m->wrong_ca = cg::make_self_signed(ca_spec);

  cg::CertSpec leaf;
  leaf.subject = {{"CN", kServerName}};
  leaf.alt_names = {{GEN_DNS, kServerName}};
  m->server = cg::make_signed(leaf, m->ca);
  leaf.subject = {{"CN", kClientName}};
  leaf.alt_names = {{GEN_DNS, kClientName}};
  m->client = cg::make_signed(leaf, m->ca);
  leaf.subject = {{"CN", kDeviceName}};
  leaf.alt_names = {{GEN_URI, "urn:kora:demo:device"}};
  m->device = cg::make_signed(leaf, m->ca);

  m->psk.identity = kPskIdentity;
  m->psk.key.resize(kPskKeyBytes);
  std::vector<unsigned char> spare(kSparePskKeyBytes);
  if (RAND_bytes(m->psk.key.data(), static_cast<int>(m->psk.key.size())) != 1 ||
      RAND_bytes(spare.data(), static_cast<int>(spare.size())) != 1) {
    throw std::runtime_error("no random bytes for the PSK");
  }
  // A second entry shows the bar-quoted identity that may hold ":".
  m->psk_text.reserve(kPskTextCapacity);  // never reallocated, so no copy of the text is left unwiped
  m->psk_text.append(kPskIdentity).append(":");
  append_hex(&m->psk_text, m->psk.key);
  m->psk_text += "\n|kora:demo:spare|:";
  append_hex(&m->psk_text, spare);
  m->psk_text += "\r\n";
  OPENSSL_cleanse(spare.data(), spare.size());
}

class Demo {
 public:
  int run();

 private:
  void row(const std::string& step, const std::string& expected, const std::string& outcome, bool pass) {
    rows_.push_back({step, expected, outcome, pass});
  }
  bool store(const char* name, kora_Net_SSL_Cert_Type_t type, const std::string& bytes, bool priv_key);
  void store_all(const Material& m);
  void handshake_certificates();
  void handshake_psk(const Material& m, int version, const char* label);
  void handshake_wrong_ca();
  void device_identity();
  void certificate_on_psk_object();
  void list_and_remove();
  void print_table() const;

  std::vector<Row> rows_;
  bool stored_ok_ = true;
};

// SIGINT, SIGTERM and SIGHUP only record which one came. The demo looks between its steps
// and, once one has come, skips to the clean-up a normal run ends with; so the clean-up runs
// in ordinary context, where the store's calls and file removals are safe, and never races
// a step that is half done. Each step is short (loopback handshakes with their own limits).
volatile std::sig_atomic_t g_stop_signal = 0;

extern "C" void note_stop_signal(int signo) { g_stop_signal = signo; }

class StopSignals {
 public:
  StopSignals() {
    struct sigaction action {};
    action.sa_handler = &note_stop_signal;
    action.sa_flags = SA_RESTART;
    (void)sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < std::size(kSignals); ++i) {
      (void)::sigaction(kSignals[i], &action, &saved_[i]);
    }
  }
  ~StopSignals() {
    for (size_t i = 0; i < std::size(kSignals); ++i) {
      (void)::sigaction(kSignals[i], &saved_[i], nullptr);
    }
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  static bool stopped() { return g_stop_signal != 0; }

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction saved_[std::size(kSignals)]{};
};

// Removes the demo's credentials by file, with their session files: after a failed store
// (the lock stays held then) or an interrupted run.
void remove_demo_files() {
  for (const DemoName& d : kDemoNames) {
    if (const std::string path = stored_path(d.name, d.type, false); !path.empty()) {
      (void)::remove(path.c_str());
    }
    if (d.type == KORA_NET_SSL_CERTIFICATE_E) {
      if (const std::string path = stored_path(d.name, d.type, true); !path.empty()) {
        (void)::remove(path.c_str());
      }
    }
    ssl_store_delete_binded_session_files(d.name, d.type);
  }
}

std::string status_text(int status) {
  return "status " + std::to_string(status) + " (" + status_name(status) + ")";
}

bool Demo::store(const char* name, kora_Net_SSL_Cert_Type_t type, const std::string& bytes, bool priv_key) {
  diag_clear();
  const int status = SSL_cert_store(name, type, bytes.data(), static_cast<int>(bytes.size()), priv_key);
  if (status != KORA_OK) {
    // A failed write leaves the store's lock held: nothing more can be stored in this run.
    (void)fail_store(std::string("storing '") + name + "' failed", status);
    stored_ok_ = false;
  }
  return status == KORA_OK;
}

void Demo::store_all(const Material& m) {
  bool ok = true;
  ok = ok && store(kCaName, KORA_NET_SSL_CA_LIST_E, m.ca.cert_pem(), false);
  ok = ok && store(kWrongCaName, KORA_NET_SSL_CA_LIST_E, m.wrong_ca.cert_pem(), false);
  for (const auto& [name, cred] : {std::pair<const char*, const cg::Credential*>{kServerName, &m.server},
                                   std::pair<const char*, const cg::Credential*>{kClientName, &m.client}}) {
    std::string key = cred->key_pem();
    ok = ok && store(name, KORA_NET_SSL_CERTIFICATE_E, cred->cert_pem(), false) &&
         store(name, KORA_NET_SSL_CERTIFICATE_E, key, true);
    OPENSSL_cleanse(key.data(), key.size());
  }
  const std::vector<uint8_t> di = m.device.cert_der();
  ok = ok && store(kDeviceName, KORA_NET_SSL_DI_CERT_E, std::string(di.begin(), di.end()), false);
  if (ok) {
    SecureVector text(m.psk_text.begin(), m.psk_text.end());
    kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(text.size()), text.data()};
    diag_clear();
    const int status = ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>(kPskName));
    if (status != KORA_OK) {
      (void)fail_store("storing the PSK table failed", status);
      ok = false;
    }
  }
  stored_ok_ = ok;
  row("store CA lists, certificates with keys, DI (DER), PSK table", "stored",
      ok ? "stored, sealed" : "failed", ok);
}

// Loads credentials onto a fresh object; false (with the failure line printed) when one fails.
bool load_all(SslObject* obj, ssl_obj_role_t role, std::initializer_list<DemoName> creds) {
  if (obj->create(role) != 0) {
    (void)fail("creating an SSL object failed");
    return false;
  }
  for (const DemoName& c : creds) {
    if (load_credential(obj->hdl(), c.type, c.name) != kExitOk) {
      return false;
    }
  }
  return true;
}

std::string describe(const Handshake& side) {
  if (side.status != 0) {
    std::string s = "handshake failed";
    if (side.have_info && side.info.verify_result != X509_V_OK) {
      s += std::string(": ") + X509_verify_cert_error_string(side.info.verify_result);
    }
    return s;
  }
  return std::string(side.info.protocol) + " " + side.info.cipher;
}

void Demo::handshake_certificates() {
  SslObject server;
  SslObject client;
  if (!load_all(&server, SSL_OBJ_ROLE_SERVER,
                {{kServerName, KORA_NET_SSL_CERTIFICATE_E}, {kCaName, KORA_NET_SSL_CA_LIST_E}}) ||
      !load_all(&client, SSL_OBJ_ROLE_CLIENT,
                {{kClientName, KORA_NET_SSL_CERTIFICATE_E}, {kCaName, KORA_NET_SSL_CA_LIST_E}}) ||
      ssl_obj_set_verify(server.hdl(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT) != 0 ||
      ssl_obj_set_server_name(client.hdl(), kServerName) != 0) {
    row("certificates, mutual authentication", "both verified", "setup failed", false);
    return;
  }
  const LoopbackResult r = run_loopback([&](int fd) { return object_side(server.hdl(), fd); },
                                        [&](int fd) { return object_side(client.hdl(), fd); });
  const bool pass = r.client.status == 0 && r.server.status == 0 &&
                    r.client.info.verify_result == X509_V_OK && r.server.info.verify_result == X509_V_OK;
  std::string outcome = describe(r.client);
  if (pass) {
    outcome += ", server and client verified";
  } else if (!r.error.empty()) {
    outcome = r.error;
  }
  row("certificates, mutual authentication", "both verified", outcome, pass);
  if (pass) {
    std::printf("certificate handshake:\n");
    print_conn_info(stdout, r.client.info, "server " + verify_phrase(r.client.info.verify_result));
    std::printf("  client seen by the server: %s, %s\n", r.server.info.peer_subject,
                verify_phrase(r.server.info.verify_result).c_str());
  }
}

void Demo::handshake_psk(const Material& m, int version, const char* label) {
  SslObject client;
  if (!load_all(&client, SSL_OBJ_ROLE_CLIENT, {{kPskName, KORA_NET_SSL_PSK_TABLE_E}}) ||
      ssl_obj_set_verify(client.hdl(), SSL_VERIFY_NONE) != 0 ||
      ssl_obj_set_protocol_bounds(client.hdl(), version, version) != 0 ||
      ssl_obj_set_ciphers(client.hdl(), kPskTls12Ciphers, kPskTls13Suites) != 0) {
    row(std::string("PSK, ") + label, "handshake", "setup failed", false);
    return;
  }
  const LoopbackResult r = run_loopback([&](int fd) { return psk_server_side(m.psk, version, fd); },
                                        [&](int fd) { return object_side(client.hdl(), fd); });
  const bool pass = r.client.status == 0 && r.server.status == 0;
  row(std::string("PSK, ") + label + " (identity " + kPskIdentity + ")", "handshake",
      r.error.empty() ? describe(r.client) : r.error, pass);
}

void Demo::handshake_wrong_ca() {
  SslObject server;
  SslObject client;
  if (!load_all(&server, SSL_OBJ_ROLE_SERVER, {{kServerName, KORA_NET_SSL_CERTIFICATE_E}}) ||
      !load_all(&client, SSL_OBJ_ROLE_CLIENT, {{kWrongCaName, KORA_NET_SSL_CA_LIST_E}})) {
    row("server checked against the wrong CA", "refused", "setup failed", false);
    return;
  }
  const LoopbackResult r = run_loopback([&](int fd) { return object_side(server.hdl(), fd); },
                                        [&](int fd) { return object_side(client.hdl(), fd); });
  const bool refused = r.error.empty() && r.client.status != 0 && r.server.status != 0 &&
                       r.client.have_info && r.client.info.verify_result != X509_V_OK;
  row("server checked against the wrong CA", "refused", r.error.empty() ? describe(r.client) : r.error,
      refused);
}

void Demo::device_identity() {
  SslObject obj;
  if (obj.create(SSL_OBJ_ROLE_CLIENT) != 0) {
    row("device identity onto an SSL object", "attached", "setup failed", false);
    return;
  }
  kora_Net_SSL_Identifier_t id{};
  diag_clear();
  const int status = SSL_cert_load_get_identifier(obj.hdl(), &id, kDeviceName);
  SSL_CTX* ctx = ssl_get_obj_context(obj.hdl());
  const auto* attached = ctx != nullptr
                             ? static_cast<const X509*>(SSL_CTX_get_ex_data(ctx, SSL_DI_CERT_EX_DATA_INDEX))
                             : nullptr;
  const bool pass = status == KORA_OK && attached != nullptr;
  row("device identity onto an SSL object", "attached",
      pass ? "attached: " + subject_line(attached) : status_text(status), pass);
}

void Demo::certificate_on_psk_object() {
  SslObject obj;
  if (!load_all(&obj, SSL_OBJ_ROLE_CLIENT, {{kPskName, KORA_NET_SSL_PSK_TABLE_E}})) {
    row("certificate onto a PSK object", "refused (-8)", "setup failed", false);
    return;
  }
  diag_clear();
  const int status = SSL_cert_load(obj.hdl(), KORA_NET_SSL_CERTIFICATE_E, kClientName);
  row("certificate onto a PSK object", "refused (-8)", "refused, " + status_text(status),
      status == KORA_ERR_NOT_SUPPORTED);
}

void Demo::list_and_remove() {
  int listed = 0;
  for (const DemoName& d : kDemoNames) {
    kora_Net_SSL_Cert_List_t list{};
    const int n = SSL_cert_name_list(d.type, &list);
    for (int i = 0; i < n && i < static_cast<int>(std::size(list.name)); ++i) {
      if (std::string(list.name[i]) == d.name) {
        ++listed;
      }
    }
  }
  std::printf("stored by the demo:\n");
  for (const DemoName& d : kDemoNames) {
    std::printf("  %-*s %s\n", kKindWordWidth, find_kind(d.type)->word, d.name);
  }
  const int expected = static_cast<int>(std::size(kDemoNames));
  row("list the stored names", std::to_string(expected) + " listed", std::to_string(listed) + " listed",
      listed == expected);
  int removed = 0;
  for (const DemoName& d : kDemoNames) {
    if (SSL_cert_store(d.name, d.type, nullptr, 0, false) == KORA_OK &&
        Is_SSL_cert_file_exist(d.name, d.type) != KORA_OK) {
      ++removed;
    }
  }
  row("remove them again", std::to_string(expected) + " removed", std::to_string(removed) + " removed",
      removed == expected);
}

void Demo::print_table() const {
  std::printf("\n%-*s %-*s %s\n", kStepWidth, "step", kExpectedWidth, "expected", "outcome");
  for (const Row& r : rows_) {
    std::printf("%-*s %-*s %s %s\n", kStepWidth, r.step.c_str(), kExpectedWidth, r.expected.c_str(),
                r.pass ? "[ok]  " : "[FAIL]", r.outcome.c_str());
  }
}

// Refuses to run over credentials of the user's that carry the demo's names.
bool demo_names_free() {
  for (const DemoName& d : kDemoNames) {
    const std::string path = stored_path(d.name, d.type, false);
    struct stat st {};
    if (!path.empty() && ::lstat(path.c_str(), &st) == 0) {
      (void)fail(std::string("the store already holds ") + find_kind(d.type)->title + " '" + d.name +
                 "'; the demo does not overwrite it");
      return false;
    }
  }
  return true;
}

int Demo::run() {
  if (!demo_names_free()) {
    return kExitFailed;
  }
  const StopSignals signals;
  DemoHost host;
  std::string why;
  if (!host.prepare(&why)) {
    return fail(why);
  }
  if (StopSignals::stopped()) {
    return kExitFailed;  // the host is restored as `host` goes
  }
  const int init = run_store_init_quietly();
  row("initialise the store at " KORA_STORE_DATA_ROOT, "ok", status_text(init), init == KORA_OK);
  if (init != KORA_OK) {
    print_table();
    return fail_store("initialising the store failed", init);
  }
  Material m;
  try {
    make_material(&m);
  } catch (const std::exception& e) {
    return fail(std::string("making the demo's certificates failed: ") + e.what());
  }
  row("make CA, wrong CA, server, client, DI certificates, PSK", "made", "made in memory", true);
  const std::function<void()> steps[] = {
      [&] { handshake_certificates(); },
      [&] { handshake_psk(m, TLS1_2_VERSION, "TLS 1.2"); },
      [&] { handshake_psk(m, TLS1_3_VERSION, "TLS 1.3"); },
      [&] { handshake_wrong_ca(); },
      [&] { device_identity(); },
      [&] { certificate_on_psk_object(); },
      [&] { list_and_remove(); },
  };
  if (!StopSignals::stopped()) {
    store_all(m);
  }
  for (const auto& step : steps) {
    if (!stored_ok_ || StopSignals::stopped()) {
      break;
    }
    step();
  }
  const bool interrupted = StopSignals::stopped();
  if (interrupted || !stored_ok_) {
    remove_demo_files();
  }
  host.restore();
  if (interrupted) {
    for (const std::string& left : host.leftovers()) {
      (void)std::fprintf(stderr, "kora-ssl-store demo: could not remove %s\n", left.c_str());
    }
    return fail("interrupted by signal " + std::to_string(g_stop_signal) + "; the host is left as found");
  }
  print_table();
  bool all = true;
  for (const Row& r : rows_) {
    all = all && r.pass;
  }
  if (host.leftovers().empty()) {
    std::printf("\nhost left as found\n");
  } else {
    for (const std::string& left : host.leftovers()) {
      (void)std::fprintf(stderr, "kora-ssl-store demo: could not remove %s\n", left.c_str());
    }
  }
  if (!all) {
    return fail("some steps did not go as expected (see the table)");
  }
  std::printf("demo passed\n");
  return kExitOk;
}

}  // namespace

int run_demo(const Args& args) {
  if (!args.positional.empty()) {
    return usage_error("demo takes no arguments");
  }
  Demo demo;
  const int rc = demo.run();
  if (const int signo = g_stop_signal; signo != 0) {
    // Cleaned up: now end the way the signal asked, so that the caller sees it.
    (void)std::signal(signo, SIG_DFL);
    (void)std::raise(signo);
  }
  return rc;
}

}  // namespace kora::cli
