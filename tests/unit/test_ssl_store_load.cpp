// Certificate and key loading, the decoders, and the load entry's dispatch by kind.
#include <openssl/x509.h>

#include <string>

#include "kora_certgen.h"
#include "loading_fixture.h"
#include "log_capture.h"

namespace kora::test {
namespace {

using ::kora::test::operator<<;  // rows print as their labels

enum class Enc { kNone, kPem, kDer, kGarbage };
enum class Hdl { kReal, kZero, kUnknown };

struct CertRow {
  const char* label;
  Hdl hdl;
  bool psk_loaded;
  Enc cert;
  Enc key;
  int status;
  const char* text;  // a message the call must log, at `mask`
  uint32_t mask;
  bool cert_installed;
};

class CertificateLoad : public LoadingTest, public ::testing::WithParamInterface<CertRow> {
 protected:
  std::string encode(Enc e, bool is_key) const {
    switch (e) {
      case Enc::kPem:
        return is_key ? cred_.key_pem() : cred_.cert_pem();
      case Enc::kDer:
        return bytes_of(is_key ? cred_.key_der() : cred_.cert_der());
      default:
        return "not a credential";
    }
  }
  certgen::Credential cred_ = certgen::make_self_signed({});
};

TEST_P(CertificateLoad, ReturnsCodeLogsAndLeavesContext) {
  const CertRow& row = GetParam();
  if (row.psk_loaded) {
    put("p", KORA_NET_SSL_PSK_TABLE_E, psk_table({{"id", "k"}}));
    ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_PSK_TABLE_E, "p"), 0);
  }
  if (row.cert != Enc::kNone) {
    put("dev", KORA_NET_SSL_CERTIFICATE_E, encode(row.cert, false));
  }
  if (row.key != Enc::kNone) {
    put("dev", KORA_NET_SSL_CERTIFICATE_E, encode(row.key, true), true);
  }
  char cert_path[512], key_path[512];
  ASSERT_EQ(SSL_cert_get_abs_path("dev", KORA_NET_SSL_CERTIFICATE_E, cert_path, 512, false), 0);
  ASSERT_EQ(SSL_cert_get_abs_path("dev", KORA_NET_SSL_CERTIFICATE_E, key_path, 512, true), 0);
  const ssl_obj_hdl_t hdl = row.hdl == Hdl::kReal ? hdl_ : row.hdl == Hdl::kZero ? 0 : 0x7777;

  LogCapture log;
  EXPECT_EQ(SSL_certificate_load(hdl, cert_path, key_path), row.status);
  EXPECT_TRUE(log.has(row.text, row.mask)) << row.text;
  // Refused before any read: no file is looked at.
  if (row.status == KORA_ERR_NOT_SUPPORTED) {
    EXPECT_EQ(log.count("ERROR: Reading certificate info from cert loc failed!! \r\n"), 0u);
  }
  X509* installed = SSL_CTX_get0_certificate(ctx_);
  EXPECT_EQ(installed != nullptr && X509_cmp(installed, cred_.cert.get()) == 0, row.cert_installed);
  if (row.status == KORA_OK) {
    EXPECT_EQ(SSL_CTX_check_private_key(ctx_), 1);
  }
}

constexpr uint32_t E = kError, H = kHigh;
INSTANTIATE_TEST_SUITE_P(
    Rows, CertificateLoad,
    ::testing::Values(CertRow{"HandleZeroIsMinusOne", Hdl::kZero, false, Enc::kPem, Enc::kPem, -1,
                              "File path parameters are invalid or obj handle passed is NULL\n", E, false},
                      CertRow{"UnknownHandle", Hdl::kUnknown, false, Enc::kPem, Enc::kPem, -2,
                              "SSL object context is NULL\n", E, false},
                      CertRow{"PskLoadedRefusedWithoutRead", Hdl::kReal, true, Enc::kNone, Enc::kNone, -8,
                              "PSK key is set. Setting both certificate and PSK is not supported\n", H,
                              false},
                      CertRow{"MissingCertFile", Hdl::kReal, false, Enc::kNone, Enc::kPem, -1,
                              "ERROR: Reading certificate info from cert loc failed!! \r\n", E, false},
                      CertRow{"GarbageCert", Hdl::kReal, false, Enc::kGarbage, Enc::kPem, -1,
                              "Failed to get the X509 object \n", E, false},
                      CertRow{"MissingKeyKeepsCert", Hdl::kReal, false, Enc::kPem, Enc::kNone, -1,
                              "ERROR: Reading private key info from cert loc failed!! \r\n", E, true},
                      CertRow{"DerCertPemKeyKeepsCert", Hdl::kReal, false, Enc::kDer, Enc::kPem, -1,
                              "Failed to set the private key \n", E, true},
                      CertRow{"PemCertDerKeyKeepsCert", Hdl::kReal, false, Enc::kPem, Enc::kDer, -1,
                              "Failed to set the private key \n", E, true},
                      CertRow{"PemPair", Hdl::kReal, false, Enc::kPem, Enc::kPem, 0,
                              "Current certificate is in PEM format \n", H, true},
                      CertRow{"DerPair", Hdl::kReal, false, Enc::kDer, Enc::kDer, 0,
                              "Current certificate is in DER format\n", H, true}),
    LabelName());

// The DER test sees the size cut to 16 bits; the decoder must still get the whole file.
TEST_F(LoadingTest, PemCertificateLargerThan64KiBLoads) {
  certgen::CertSpec spec;
  for (int i = 0; i < 2500; ++i) {
    spec.alt_names.push_back({GEN_DNS, "host-" + std::to_string(i) + ".example.test"});
  }
  const auto cred = certgen::make_self_signed(spec);
  const std::string pem = cred.cert_pem();
  ASSERT_GT(pem.size(), 65535u);
  put("big", KORA_NET_SSL_CERTIFICATE_E, pem);
  put("big", KORA_NET_SSL_CERTIFICATE_E, cred.key_pem(), true);
  EXPECT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_CERTIFICATE_E, "big"), 0);
  EXPECT_EQ(X509_cmp(SSL_CTX_get0_certificate(ctx_), cred.cert.get()), 0);
}

struct DispatchRow {
  const char* label;
  int type;
  const char* name;  // "dev" names a stored certificate with key, CA list and PSK table
  bool zero_handle;
  int status;
  const char* text;
  uint32_t mask;
  const char* recorded = "";  // name the object records afterwards
};

class Dispatch : public LoadingTest, public ::testing::WithParamInterface<DispatchRow> {};

TEST_P(Dispatch, ReturnsCodeLogsAndReleasesLock) {
  const DispatchRow& row = GetParam();
  const auto cred = certgen::make_self_signed({});
  put("dev", KORA_NET_SSL_CERTIFICATE_E, cred.cert_pem());
  put("dev", KORA_NET_SSL_CERTIFICATE_E, cred.key_pem(), true);
  put("nokey", KORA_NET_SSL_CERTIFICATE_E, cred.cert_pem());
  put("dev", KORA_NET_SSL_CA_LIST_E, cred.cert_pem());
  put("dev", KORA_NET_SSL_PSK_TABLE_E, psk_table({{"id", "k"}}));
  put("dev", KORA_NET_SSL_DI_CERT_E, cred.cert_pem());

  LogCapture log;
  EXPECT_EQ(
      SSL_cert_load(row.zero_handle ? 0 : hdl_, static_cast<kora_Net_SSL_Cert_Type_t>(row.type), row.name),
      row.status);
  if (row.text != nullptr) {
    EXPECT_TRUE(log.has(row.text, row.mask)) << row.text;
  }
  EXPECT_TRUE(store_lock_is_free());
  EXPECT_STREQ(record().cert, row.recorded);
}

const std::string kName64(64, 'n');
const std::string kName64Message =
    "SSL_cert_load:Invalid abs path for the file name:" + kName64 + " type:1 \n";

INSTANTIATE_TEST_SUITE_P(
    Rows, Dispatch,
    ::testing::Values(DispatchRow{"NullName", 1, nullptr, true, -2, "Invalid file name \n", E},
                      DispatchRow{"TypeZero", 0, "dev", false, -1,
                                  "SSL_cert_load:Invalid abs path for the file name:dev type:0 \n", E},
                      DispatchRow{"TypeFive", 5, "dev", false, -1,
                                  "SSL_cert_load:Invalid abs path for the file name:dev type:5 \n", E},
                      DispatchRow{"Name64", 1, kName64.c_str(), false, -1, kName64Message.c_str(), E},
                      DispatchRow{"DeviceIdentityRefused", 4, "dev", false, -2, "Invalid Cert Type: 4", H},
                      DispatchRow{"ZeroHandleReachesLoader", 1, "dev", true, -1,
                                  "File path parameters are invalid or obj handle passed is NULL\n", E},
                      DispatchRow{"MissingKey", 1, "nokey", false, -1,
                                  "ERROR: Reading private key info from cert loc failed!! \r\n", E},
                      DispatchRow{"Certificate", 1, "dev", false, 0, nullptr, 0, "dev"},
                      DispatchRow{"CaList", 2, "dev", false, 0, "Temp file removed successfully\n", H},
                      DispatchRow{"PskTable", 3, "dev", false, 0, nullptr, 0, "dev"}),
    LabelName());

}  // namespace
}  // namespace kora::test
