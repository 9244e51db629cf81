#include <openssl/x509v3.h>

#include <cstring>

#include "fakes.h"
#include "loading_fixture.h"
#include "ssl_store_identity.h"

namespace kora::test {
namespace {

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
