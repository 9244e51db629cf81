// Loading credentials by name onto an SSL object: certificate and key pairs, CA lists and the
// dispatcher's refusals; device-identity certificates, their identifier and the releases of
// ssl_mutex on each path.
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstring>
#include <tuple>

#include "fakes.h"
#include "loading_fixture.h"
#include "ssl_store_identity.h"

namespace kora::test {
namespace {

struct LoadRow {
  const char* label;
  int type;
  const char* name;   // stored: "pem" and "der" pairs, "mixed" (DER cert, PEM key), "nokey"
  ssl_obj_hdl_t hdl;  // 1: the fixture's object
  bool psk_loaded;
  int status;
  const char* text;
  uint32_t mask;
  const char* recorded;   // name the object records afterwards
  bool installed;         // the certificate is on the context afterwards
  std::string removal{};  // of the CA list's temporary file: "removed", "failed" (logged) or not tried
  int cas = 0;            // certificates in the context's verify store afterwards
  bool big = false;       // the pairs hold a certificate of over 64 KiB in PEM
};
std::ostream& operator<<(std::ostream& os, const LoadRow& r) { return os << r.label; }

class Load : public LoadingTest, public ::testing::WithParamInterface<LoadRow> {};

TEST_P(Load, ReturnsCodeLogsAndReleasesLock) {
  const LoadRow& row = GetParam();
  // The format test sees the size of a big certificate cut to 16 bits; the decoder must still get
  // the whole file.
  certgen::CertSpec spec;
  for (int i = 0; row.big && i < 2500; ++i) {
    spec.alt_names.push_back({GEN_DNS, "host-" + std::to_string(i) + ".example.test"});
  }
  const auto cred = certgen::make_self_signed(spec);
  ASSERT_TRUE(!row.big || cred.cert_pem().size() > 65535u);
  const std::string der = bytes_of(cred.cert_der());
  for (const auto& [name, cert, key] : {std::make_tuple("pem", cred.cert_pem(), cred.key_pem()),
                                        std::make_tuple("der", der, bytes_of(cred.key_der())),
                                        std::make_tuple("mixed", der, cred.key_pem())}) {
    put(name, KORA_NET_SSL_CERTIFICATE_E, cert);
    put(name, KORA_NET_SSL_CERTIFICATE_E, key, true);
  }
  put("nokey", KORA_NET_SSL_CERTIFICATE_E, cred.cert_pem());
  certgen::CertSpec ca_spec;
  ca_spec.is_ca = true;
  const std::string cas =
      certgen::make_self_signed(ca_spec).cert_pem() + certgen::make_self_signed(ca_spec).cert_pem();
  put("cas", KORA_NET_SSL_CA_LIST_E, cas);
  if (row.psk_loaded) {
    put("p", KORA_NET_SSL_PSK_TABLE_E, psk_table({{"id", "k"}}));
    ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_PSK_TABLE_E, "p"), 0);
  }
  ASSERT_TRUE(heap::watching());
  const std::string key_pem = cred.key_pem(), key_der = bytes_of(cred.key_der());
  heap::watch_secrets({key_pem.substr(key_pem.size() / 2, 32), key_der.substr(key_der.size() / 2, 32),
                       cas.substr(cas.size() * 3 / 4, 32)});
  LogCapture log;
  const auto load = [&] {
    return SSL_cert_load(row.hdl == 1 ? hdl_ : row.hdl, static_cast<kora_Net_SSL_Cert_Type_t>(row.type),
                         row.name);
  };
  EXPECT_EQ(load(), row.status);
  EXPECT_EQ(heap::secret_releases(true), 0) << "the decrypted key or CA list went back to the heap unwiped";
  const bool removed = log.has("Temp file removed successfully\n", kHigh);
  EXPECT_EQ(row.removal, removed                                               ? "removed"
                         : log.has("Unable to delete the temp file\n", kError) ? "failed"
                                                                               : "");
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(ctx_))), row.cas);
  ERR_clear_error();  // error records carry blocks of their own
  long live[3] = {heap::live_blocks()};
  for (int i = 1; i < 3; ++i) {
    load();
    ERR_clear_error();
    live[i] = heap::live_blocks();
  }
  EXPECT_TRUE(live[0] == live[1] && live[1] == live[2])
      << "repeated loads leak: " << live[0] << ", " << live[1] << ", " << live[2];
  EXPECT_TRUE(log.has(row.text, row.mask) &&
              !log.has("Unable to set the cert name to the object context \n", kError) &&
              access("/data/data_velto/.ssl/temp", F_OK) != 0)
      << row.text;
  EXPECT_TRUE(store_lock_is_free() && std::string(record().cert) == row.recorded) << record().cert;
  X509* installed = SSL_CTX_get0_certificate(ctx_);
  EXPECT_EQ(installed != nullptr && X509_cmp(installed, cred.cert.get()) == 0, row.installed);
}

constexpr uint32_t E = kError, H = kHigh;
INSTANTIATE_TEST_SUITE_P(
    Rows, Load,
    ::testing::Values(
        LoadRow{"NullName", 1, nullptr, 0, false, -2, "Invalid file name \n", E, "", false},
        LoadRow{"DeviceIdentityRefused", 4, "pem", 1, false, -2, "Invalid Cert Type: 4", H, "", false},
        LoadRow{"ZeroHandle", 1, "pem", 0, false, -1,
                "File path parameters are invalid or obj handle passed is NULL\n", E, "", false},
        LoadRow{"UnknownHandle", 1, "pem", 999, false, -2, "SSL object context is NULL\n", E, "", false},
        LoadRow{"PskLoaded", 1, "pem", 1, true, -8,
                "PSK key is set. Setting both certificate and PSK is not supported\n", H, "p", false},
        LoadRow{"MissingKeyKeepsCert", 1, "nokey", 1, false, -1,
                "ERROR: Reading private key info from cert loc failed!! \r\n", E, "", true},
        LoadRow{"MixedKeepsCert", 1, "mixed", 1, false, -1, "Failed to set the private key \n", E, "", true},
        LoadRow{"PemPair", 1, "pem", 1, false, 0, "Current certificate is in PEM format \n", H, "pem", true},
        LoadRow{"DerPair", 1, "der", 1, false, 0, "Current certificate is in DER format\n", H, "der", true},
        LoadRow{"PemPairLargerThan64KiB", 1, "pem", 1, false, 0, "Current certificate is in PEM format \n", H,
                "pem", true, "", 0, true},
        // A CA list records no name. A list OpenSSL refuses (DER, text) is in the fault tests'
        // garbage table; the temporary file goes on that path as on these.
        LoadRow{"CaListPskLoaded", 2, "cas", 1, true, -8,
                "PSK key is not NULL. Don't support setting both certificate and PSK in SSL object\n", H, "p",
                false},
        LoadRow{"CaListMissingFile", 2, "absent", 1, false, -1,
                "ERROR: Reading ca_list info from cert loc failed!! \r\n", E, "", false, "failed"},
        LoadRow{"CaListPemLoaded", 2, "cas", 1, false, 0, "Temp file removed successfully\n", H, "", false,
                "removed", 2}));

struct IdRow {
  const char* label;
  certgen::CertSpec spec;  // subject and alternative names
  int status, type;        // type 0: no identifier set
  std::string name;
  bool alt_names_searched;  // the high-level message before the search
};
std::ostream& operator<<(std::ostream& os, const IdRow& r) { return os << r.label; }

class Identifier : public ::testing::TestWithParam<IdRow> {};

TEST_P(Identifier, FollowsTheRules) {
  const IdRow& row = GetParam();
  kora_Net_SSL_Identifier_t id{};
  LogCapture log;
  EXPECT_EQ(store::work_out_identifier(certgen::make_self_signed(row.spec).cert.get(), &id), row.status);
  EXPECT_EQ(static_cast<int>(id.identifier_Type), row.type);
  EXPECT_EQ(std::string(id.identifier_Name), row.name);
  EXPECT_EQ(log.has("SSL_cert_load_get_identifier: Cert load and Got the Identifier \n", kHigh),
            row.alt_names_searched);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Identifier,
    ::testing::Values(
        IdRow{"FirstCn", {{{"CN", "dev"}, {"CN", "two"}}, {{GEN_DNS, "d.test"}}}, 0, 1, "dev", false},
        IdRow{"EmailThenUri", {{}, {{GEN_EMAIL, "a@b.test"}, {GEN_URI, "urn:d"}}}, 0, 4, "urn:d", true},
        IdRow{"NulDns", {{}, {{GEN_DNS, std::string("a\0b", 3)}, {GEN_URI, "urn:d"}}}, -1, 0, "", true}));

struct EntryRow {
  const char* label;
  ssl_obj_hdl_t hdl;  // 1: the fixture's object
  int file;           // "di" stored: 0 none, 1 PEM with a CN, 2 DER without any identifier
  int status;
  const char* text;
  std::vector<int> unlocks;  // the result of every release
  bool attached;
};
std::ostream& operator<<(std::ostream& os, const EntryRow& r) { return os << r.label; }

class Entry : public LoadingTest, public ::testing::WithParamInterface<EntryRow> {};

TEST_P(Entry, ReturnsCodeAndReleasesAsRequired) {
  const EntryRow& row = GetParam();
  const auto cred = certgen::make_self_signed({{{row.file == 2 ? "O" : "CN", "dev"}}, {}});
  const std::string stored = row.file == 2 ? bytes_of(cred.cert_der()) : cred.cert_pem();
  if (row.file != 0) {
    put("di", KORA_NET_SSL_DI_CERT_E, stored);
  }
  heap::watch_secrets({stored.substr(stored.size() / 2, 32)});
  kora_Net_SSL_Identifier_t ref, before;
  std::memset(&ref, 0x5A, sizeof ref);
  before = ref;
  fake::unlock_results.clear();
  LogCapture log;
  EXPECT_EQ(SSL_cert_load_get_identifier(row.hdl == 1 ? hdl_ : row.hdl, &ref, "di"), row.status);
  EXPECT_TRUE(log.has(row.text, kError) || *row.text == '\0') << row.text;
  EXPECT_EQ(fake::unlock_results, row.unlocks);
  EXPECT_EQ(std::memcmp(&ref, &before, sizeof ref), 0) << "caller's record written";
  auto* attached = static_cast<X509*>(SSL_CTX_get_ex_data(ctx_, SSL_DI_CERT_EX_DATA_INDEX));
  EXPECT_EQ(attached != nullptr && X509_cmp(attached, cred.cert.get()) == 0, row.attached);
  EXPECT_EQ(heap::secret_releases(true), row.attached ? 1 : 0) << "the read certificate was not released";
}

const char* const kBadHandle =
    "SSL_cert_load_get_identifier: Invalid SSL handle or already have a valid connection\n";
const char* const kNoFile = "ERROR: Reading DI cert info from cert loc failed!! \r\n";
INSTANTIATE_TEST_SUITE_P(Rows, Entry,
                         ::testing::Values(EntryRow{"UnknownHandle", 0x7777, 1, -2, kBadHandle, {0}, false},
                                           EntryRow{
                                               "MissingFileReleasesTwice", 1, 0, -1, kNoFile, {0, 1}, false},
                                           EntryRow{"NoIdentifierStillAttached", 1, 2, -1, "", {0}, true},
                                           EntryRow{"Pem", 1, 1, 0, "", {0}, true}));

// The second certificate takes index 1; the first is not freed here (the object layer owns it).
TEST_F(LoadingTest, SecondIdentityReplacesAttachedCertificate) {
  const auto first = certgen::make_self_signed({}), second = certgen::make_self_signed({});
  put("a", KORA_NET_SSL_DI_CERT_E, first.cert_pem());
  put("b", KORA_NET_SSL_DI_CERT_E, second.cert_pem());
  kora_Net_SSL_Identifier_t ref{};
  EXPECT_EQ(SSL_cert_load_get_identifier(hdl_, &ref, std::string(64, 'n').c_str()), -1);  // no path for it
  ASSERT_EQ(SSL_cert_load_get_identifier(hdl_, &ref, "a"), 0);
  auto* kept = static_cast<X509*>(SSL_CTX_get_ex_data(ctx_, SSL_DI_CERT_EX_DATA_INDEX));
  ASSERT_EQ(SSL_cert_load_get_identifier(hdl_, &ref, "b"), 0);
  EXPECT_EQ(X509_cmp(static_cast<X509*>(SSL_CTX_get_ex_data(ctx_, 1)), second.cert.get()), 0);
  EXPECT_EQ(X509_cmp(kept, first.cert.get()), 0);  // still valid memory: not freed
  X509_free(kept);
}

}  // namespace
}  // namespace kora::test
