// CA list loading: verify locations through the temporary plain file, which must be gone
// after every call that got as far as reading.
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "kora_certgen.h"
#include "loading_fixture.h"
#include "log_capture.h"

namespace kora::test {
namespace {

using ::kora::test::operator<<;  // rows print as their labels

constexpr const char* kTemp = "/data/data_velto/.ssl/temp";

enum class Stored { kNone, kPemPair, kDer };
enum class Before { kNothing, kStaleTemp, kTempIsDir, kPskLoaded };

struct CaRow {
  const char* label;
  bool null_path;
  bool unknown_handle;
  Before before;
  Stored stored;
  int status;
  const char* text;
  uint32_t mask;
  const char* removal;  // removal message expected, or null when no removal may be attempted
  int certs_in_store;
};

class CaListLoad : public LoadingTest, public ::testing::WithParamInterface<CaRow> {};

TEST_P(CaListLoad, ReturnsCodeLogsAndRemovesTemp) {
  const CaRow& row = GetParam();
  certgen::CertSpec ca_spec;
  ca_spec.is_ca = true;
  const auto ca1 = certgen::make_self_signed(ca_spec);
  const auto ca2 = certgen::make_self_signed(ca_spec);
  if (row.stored == Stored::kPemPair) {
    put("cas", KORA_NET_SSL_CA_LIST_E, ca1.cert_pem() + ca2.cert_pem());
  }
  if (row.stored == Stored::kDer) {
    put("cas", KORA_NET_SSL_CA_LIST_E, bytes_of(ca1.cert_der()));
  }
  if (row.before == Before::kStaleTemp) {
    std::FILE* f = std::fopen(kTemp, "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
  }
  if (row.before == Before::kTempIsDir) {
    ASSERT_EQ(::mkdir(kTemp, 0700), 0);  // the write then fails
  }
  if (row.before == Before::kPskLoaded) {
    put("p", KORA_NET_SSL_PSK_TABLE_E, psk_table({{"id", "k"}}));
    ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_PSK_TABLE_E, "p"), 0);
  }
  char path[512];
  ASSERT_EQ(SSL_cert_get_abs_path("cas", KORA_NET_SSL_CA_LIST_E, path, 512, false), 0);

  LogCapture log;
  EXPECT_EQ(SSL_ca_list_load(row.unknown_handle ? 0x7777 : hdl_, row.null_path ? nullptr : path), row.status);
  EXPECT_TRUE(log.has(row.text, row.mask)) << row.text;
  if (row.removal != nullptr) {
    EXPECT_TRUE(log.has(row.removal, std::string(row.removal).rfind("Unable", 0) == 0 ? kError : kHigh));
    EXPECT_FALSE(file_exists(kTemp));
  } else {
    EXPECT_EQ(log.count("Temp file removed successfully\n") + log.count("Unable to delete the temp file\n"),
              0u);
  }
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(ctx_))), row.certs_in_store);
}

constexpr uint32_t E = kError, H = kHigh;
constexpr const char* kRemoved = "Temp file removed successfully\n";
constexpr const char* kNotRemoved = "Unable to delete the temp file\n";
INSTANTIATE_TEST_SUITE_P(
    Rows, CaListLoad,
    ::testing::Values(
        CaRow{"NullPath", true, false, Before::kNothing, Stored::kPemPair, -2,
              "ca_list file path set is NULL\n", E, nullptr, 0},
        CaRow{"UnknownHandle", false, true, Before::kNothing, Stored::kPemPair, -2,
              "Object context is NULL\n", E, nullptr, 0},
        CaRow{"PskLoaded", false, false, Before::kPskLoaded, Stored::kPemPair, -8,
              "PSK key is not NULL. Don't support setting both certificate and PSK in SSL object\n", H,
              nullptr, 0},
        CaRow{"MissingFileStillTriesRemoval", false, false, Before::kNothing, Stored::kNone, -1,
              "ERROR: Reading ca_list info from cert loc failed!! \r\n", E, kNotRemoved, 0},
        CaRow{"MissingFileRemovesStaleTemp", false, false, Before::kStaleTemp, Stored::kNone, -1,
              "ERROR: Reading ca_list info from cert loc failed!! \r\n", E, kRemoved, 0},
        CaRow{"TempWriteFails", false, false, Before::kTempIsDir, Stored::kPemPair, -1,
              "SSL_ca_list_load: storing Encrypted certificate in EFS failed!\n", E, kRemoved, 0},
        CaRow{"DerListRefused", false, false, Before::kNothing, Stored::kDer, -1,
              "CAList: Unable to retrieve the CAList\n", H, kRemoved, 0},
        CaRow{"PemListLoaded", false, false, Before::kStaleTemp, Stored::kPemPair, 0, kRemoved, H, kRemoved,
              2}),
    LabelName());

}  // namespace
}  // namespace kora::test
