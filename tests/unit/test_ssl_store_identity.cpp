// Device-identity certificates: the identifier rules, and the entry's codes, lock handling
// and the certificate left at ex-data index 1.
#include <openssl/x509v3.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "fake_mutex_calls.h"
#include "kora_certgen.h"
#include "loading_fixture.h"
#include "log_capture.h"
#include "ssl_store_identity.h"

namespace kora::test {
namespace {

using ::kora::test::operator<<;  // rows print as their labels

using Subject = std::vector<std::pair<std::string, std::string>>;
const char* const kGot = "SSL_cert_load_get_identifier: Cert load and Got the Identifier \n";

struct IdRow {
  const char* label;
  Subject subject;
  std::vector<certgen::AltName> alt;
  bool empty_alt;
  int status;
  int type;  // 0: no identifier set
  std::string name;
  bool alt_names_searched;  // the high-level message before the search
};

class Identifier : public ::testing::TestWithParam<IdRow> {};

TEST_P(Identifier, FollowsTheRules) {
  const IdRow& row = GetParam();
  certgen::CertSpec spec;
  spec.subject = row.subject;
  spec.alt_names = row.alt;
  spec.empty_alt_names = row.empty_alt;
  const auto cred = certgen::make_self_signed(spec);
  kora_Net_SSL_Identifier_t id{};
  LogCapture log;
  EXPECT_EQ(store::work_out_identifier(cred.cert.get(), &id), row.status);
  EXPECT_EQ(static_cast<int>(id.identifier_Type), row.type);
  EXPECT_EQ(std::string(id.identifier_Name), row.name);
  EXPECT_EQ(log.has(kGot, kHigh), row.alt_names_searched);
}

IdRow I(const char* label, Subject subject, std::vector<certgen::AltName> alt, bool empty_alt, int status,
        int type, std::string name, bool alt_names_searched) {
  return {label, std::move(subject), std::move(alt),    empty_alt, status,
          type,  std::move(name),    alt_names_searched};
}

const std::string kNul("a\0b", 3);
INSTANTIATE_TEST_SUITE_P(
    Rows, Identifier,
    ::testing::Values(
        I("CleanCnWinsOverDns", {{"CN", "dev"}}, {{GEN_DNS, "dns.test"}}, false, 0, 1, "dev", false),
        I("FirstOfTwoCns", {{"CN", "first"}, {"CN", "second"}}, {}, false, 0, 1, "first", false),
        I("CnCutTo63", {{"CN", std::string(64, 'c')}}, {}, false, 0, 1, std::string(63, 'c'), false),
        I("CnWithNulFallsToDns", {{"CN", kNul}}, {{GEN_DNS, "dns.test"}}, false, 0, 2, "dns.test", true),
        I("NoCnNoSanExtension", {{"O", "org"}}, {}, false, -1, 0, "", true),
        I("NoCnEmptySan", {}, {}, true, 0, 0, "", true),
        I("EmailThenUri", {}, {{GEN_EMAIL, "a@b.test"}, {GEN_URI, "urn:dev:1"}}, false, 0, 4, "urn:dev:1",
          true),
        I("DnsWithNulBeforeCleanUri", {}, {{GEN_DNS, kNul}, {GEN_URI, "urn:dev:1"}}, false, -1, 0, "", true),
        I("NoDnsOrUri", {}, {{GEN_EMAIL, "a@b.test"}, {GEN_IPADD, std::string("\x0a\x00\x00\x01", 4)}}, false,
          0, 0, "", true)),
    LabelName());

enum class Arg { kOk, kZeroHandle, kNullRef, kNullName, kUnknownHandle };
enum class File { kPem, kDerNoSan, kGarbage, kMissing };

struct EntryRow {
  const char* label;
  Arg arg;
  const char* name;
  File file;
  int status;
  std::string text;
  int locks;
  std::vector<int> unlocks;
  bool attached;
};

class Entry : public LoadingTest, public ::testing::WithParamInterface<EntryRow> {};

TEST_P(Entry, ReturnsCodeAndReleasesAsRequired) {
  const EntryRow& row = GetParam();
  certgen::CertSpec spec;
  if (row.file == File::kDerNoSan) {
    spec.subject = {{"O", "org"}};
  }
  const auto cred = certgen::make_self_signed(spec);
  if (row.file == File::kPem) {
    put("di", KORA_NET_SSL_DI_CERT_E, cred.cert_pem());
  }
  if (row.file == File::kDerNoSan) {
    put("di", KORA_NET_SSL_DI_CERT_E, bytes_of(cred.cert_der()));
  }
  if (row.file == File::kGarbage) {
    put("di", KORA_NET_SSL_DI_CERT_E, "not a certificate");
  }

  kora_Net_SSL_Identifier_t ref;
  std::memset(&ref, 0x5A, sizeof ref);
  const kora_Net_SSL_Identifier_t before = ref;
  const ssl_obj_hdl_t hdl = row.arg == Arg::kZeroHandle ? 0 : row.arg == Arg::kUnknownHandle ? 0x7777 : hdl_;
  fake_mutex_calls::lock_count = 0;
  fake_mutex_calls::unlock_results.clear();
  LogCapture log;
  EXPECT_EQ(SSL_cert_load_get_identifier(hdl, row.arg == Arg::kNullRef ? nullptr : &ref,
                                         row.arg == Arg::kNullName ? nullptr : row.name),
            row.status);
  if (!row.text.empty()) {
    EXPECT_TRUE(log.has(row.text, kError)) << row.text;
  }
  EXPECT_EQ(fake_mutex_calls::lock_count, row.locks);
  EXPECT_EQ(fake_mutex_calls::unlock_results, row.unlocks);
  EXPECT_EQ(std::memcmp(&ref, &before, sizeof ref), 0) << "caller's record written";
  auto* attached = static_cast<X509*>(SSL_CTX_get_ex_data(ctx_, SSL_DI_CERT_EX_DATA_INDEX));
  EXPECT_EQ(attached != nullptr && X509_cmp(attached, cred.cert.get()) == 0, row.attached);
}

EntryRow E(const char* label, Arg arg, const char* name, File file, int status, std::string text, int locks,
           std::vector<int> unlocks, bool attached) {
  return {label, arg, name, file, status, std::move(text), locks, std::move(unlocks), attached};
}

const std::string k64(64, 'n');
const char* const kBadArgs =
    "SSL_cert_load_get_identifier: Invalid EFS file name or Idenitifer or SSL handle is NULL\n";
INSTANTIATE_TEST_SUITE_P(
    Rows, Entry,
    ::testing::Values(
        E("ZeroHandle", Arg::kZeroHandle, "di", File::kPem, -2, kBadArgs, 0, {}, false),
        E("NullRef", Arg::kNullRef, "di", File::kPem, -2, kBadArgs, 0, {}, false),
        E("NullName", Arg::kNullName, "di", File::kPem, -2, kBadArgs, 0, {}, false),
        E("UnknownHandle", Arg::kUnknownHandle, "di", File::kPem, -2,
          "SSL_cert_load_get_identifier: Invalid SSL handle or already have a valid connection\n", 1, {0},
          false),
        E("Name64", Arg::kOk, k64.c_str(), File::kPem, -1,
          "SSL_cert_load_get_identifier:Invalid abs path for the file name:" + k64 + " type:4", 1, {0},
          false),
        E("MissingFileReleasesTwice", Arg::kOk, "di", File::kMissing, -1,
          "ERROR: Reading DI cert info from cert loc failed!! \r\n", 1, {0, 1}, false),
        E("NotACertificate", Arg::kOk, "di", File::kGarbage, -1, "Failed to get the X509 object \n", 1, {0},
          false),
        E("NoIdentifierStillAttached", Arg::kOk, "di", File::kDerNoSan, -1, "", 1, {0}, true),
        E("PemWithCn", Arg::kOk, "di", File::kPem, 0, "", 1, {0}, true)),
    LabelName());

// The second certificate takes index 1; the first is not freed here (the object layer owns it).
TEST_F(LoadingTest, SecondIdentityReplacesAttachedCertificate) {
  const auto first = certgen::make_self_signed({});
  const auto second = certgen::make_self_signed({});
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
