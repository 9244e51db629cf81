// Device-identity certificates: the identifier rules, the entry's codes and lock handling, and the
// certificate left at ex-data index 1.
#include <openssl/x509v3.h>

#include <cstring>
#include <string>
#include <vector>

#include "fakes.h"
#include "kora_certgen.h"
#include "loading_fixture.h"
#include "log_capture.h"
#include "ssl_store_identity.h"

namespace kora::test {
namespace {

struct IdRow {
  const char* label;
  std::vector<std::pair<std::string, std::string>> subject;
  std::vector<certgen::AltName> alt;
  int status, type;  // type 0: no identifier set
  std::string name;
  bool alt_names_searched;  // the high-level message before the search
};
std::ostream& operator<<(std::ostream& os, const IdRow& r) { return os << r.label; }

class Identifier : public ::testing::TestWithParam<IdRow> {};

TEST_P(Identifier, FollowsTheRules) {
  const IdRow& row = GetParam();
  certgen::CertSpec spec;
  spec.subject = row.subject;
  spec.alt_names = row.alt;
  const auto cred = certgen::make_self_signed(spec);
  kora_Net_SSL_Identifier_t id{};
  LogCapture log;
  EXPECT_EQ(store::work_out_identifier(cred.cert.get(), &id), row.status);
  EXPECT_EQ(static_cast<int>(id.identifier_Type), row.type);
  EXPECT_EQ(std::string(id.identifier_Name), row.name);
  EXPECT_EQ(log.has("SSL_cert_load_get_identifier: Cert load and Got the Identifier \n", kHigh),
            row.alt_names_searched);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Identifier,
    ::testing::Values(
        IdRow{"CleanCnWinsOverDns", {{"CN", "dev"}}, {{GEN_DNS, "dns.test"}}, 0, 1, "dev", false},
        IdRow{"FirstOfTwoCns", {{"CN", "first"}, {"CN", "second"}}, {}, 0, 1, "first", false},
        IdRow{"CnCutTo63", {{"CN", std::string(64, 'c')}}, {}, 0, 1, std::string(63, 'c'), false},
        IdRow{"EmailThenUri", {}, {{GEN_EMAIL, "a@b.test"}, {GEN_URI, "urn:dev:1"}}, 0, 4, "urn:dev:1", true},
        IdRow{"DnsWithNulBeforeUri",
              {},
              {{GEN_DNS, std::string("a\0b", 3)}, {GEN_URI, "urn:dev:1"}},
              -1,
              0,
              "",
              true}));

struct EntryRow {
  const char* label;
  ssl_obj_hdl_t hdl;  // 1: the fixture's object
  bool stored;        // "di" stored; pem with a CN, else absent
  bool der_without_identifier;
  int status;
  std::string text;
  std::vector<int> unlocks;  // the result of every release
  bool attached;
};
std::ostream& operator<<(std::ostream& os, const EntryRow& r) { return os << r.label; }

class Entry : public LoadingTest, public ::testing::WithParamInterface<EntryRow> {};

TEST_P(Entry, ReturnsCodeAndReleasesAsRequired) {
  const EntryRow& row = GetParam();
  certgen::CertSpec spec;
  if (row.der_without_identifier) {
    spec.subject = {{"O", "org"}};
  }
  const auto cred = certgen::make_self_signed(spec);
  if (row.stored) {
    put("di", KORA_NET_SSL_DI_CERT_E,
        row.der_without_identifier ? bytes_of(cred.cert_der()) : cred.cert_pem());
  }
  kora_Net_SSL_Identifier_t ref, before;
  std::memset(&ref, 0x5A, sizeof ref);
  before = ref;
  fake::lock_count = 0;
  fake::unlock_results.clear();
  LogCapture log;
  EXPECT_EQ(SSL_cert_load_get_identifier(row.hdl == 1 ? hdl_ : row.hdl, &ref, "di"), row.status);
  EXPECT_TRUE(row.text.empty() || log.has(row.text, kError)) << row.text;
  EXPECT_EQ(fake::lock_count, row.unlocks.empty() ? 0 : 1);
  EXPECT_EQ(fake::unlock_results, row.unlocks);
  EXPECT_EQ(std::memcmp(&ref, &before, sizeof ref), 0) << "caller's record written";
  auto* attached = static_cast<X509*>(SSL_CTX_get_ex_data(ctx_, SSL_DI_CERT_EX_DATA_INDEX));
  EXPECT_EQ(attached != nullptr && X509_cmp(attached, cred.cert.get()) == 0, row.attached);
}

const char* const kBadArgs =
    "SSL_cert_load_get_identifier: Invalid EFS file name or Idenitifer or SSL handle is NULL\n";
const char* const kBadHandle =
    "SSL_cert_load_get_identifier: Invalid SSL handle or already have a valid connection\n";
INSTANTIATE_TEST_SUITE_P(
    Rows, Entry,
    ::testing::Values(EntryRow{"ZeroHandle", 0, true, false, -2, kBadArgs, {}, false},
                      EntryRow{"UnknownHandle", 0x7777, true, false, -2, kBadHandle, {0}, false},
                      EntryRow{"MissingFileReleasesTwice",
                               1,
                               false,
                               false,
                               -1,
                               "ERROR: Reading DI cert info from cert loc failed!! \r\n",
                               {0, 1},
                               false},
                      EntryRow{"NoIdentifierStillAttached", 1, true, true, -1, "", {0}, true},
                      EntryRow{"PemWithCn", 1, true, false, 0, "", {0}, true}));

// The second certificate takes index 1; the first is not freed here (the object layer owns it).
TEST_F(LoadingTest, SecondIdentityReplacesAttachedCertificate) {
  const auto first = certgen::make_self_signed({}), second = certgen::make_self_signed({});
  put("a", KORA_NET_SSL_DI_CERT_E, first.cert_pem());
  put("b", KORA_NET_SSL_DI_CERT_E, second.cert_pem());
  kora_Net_SSL_Identifier_t ref{};
  ASSERT_EQ(SSL_cert_load_get_identifier(hdl_, &ref, "a"), 0);
  auto* kept = static_cast<X509*>(SSL_CTX_get_ex_data(ctx_, SSL_DI_CERT_EX_DATA_INDEX));
  ASSERT_EQ(SSL_cert_load_get_identifier(hdl_, &ref, "b"), 0);
  EXPECT_EQ(
      X509_cmp(static_cast<X509*>(SSL_CTX_get_ex_data(ctx_, SSL_DI_CERT_EX_DATA_INDEX)), second.cert.get()),
      0);
  EXPECT_EQ(X509_cmp(kept, first.cert.get()), 0);  // still valid memory: not freed
  X509_free(kept);
}

}  // namespace
}  // namespace kora::test
