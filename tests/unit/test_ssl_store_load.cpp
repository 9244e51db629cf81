// Certificate and key loading, and the load entry's dispatch by kind.
#include <openssl/x509.h>

#include <string>

#include "kora_certgen.h"
#include "loading_fixture.h"
#include "log_capture.h"

namespace kora::test {
namespace {

enum class Enc { kNone, kPem, kDer };

struct CertRow {
  ssl_obj_hdl_t hdl;  // 1: the fixture's object
  bool psk_loaded;
  Enc cert, key;
  int status;
  const char* text;  // a message the call must log, at `mask`
  uint32_t mask;
  bool cert_installed;
};

class CertificateLoad : public LoadingTest, public ::testing::WithParamInterface<CertRow> {};

TEST_P(CertificateLoad, ReturnsCodeLogsAndLeavesContext) {
  const CertRow& row = GetParam();
  const auto cred = certgen::make_self_signed({});
  if (row.psk_loaded) {
    put("p", KORA_NET_SSL_PSK_TABLE_E, psk_table({{"id", "k"}}));
    ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_PSK_TABLE_E, "p"), 0);
  }
  if (row.cert != Enc::kNone) {
    put("dev", KORA_NET_SSL_CERTIFICATE_E,
        row.cert == Enc::kPem ? cred.cert_pem() : bytes_of(cred.cert_der()));
  }
  if (row.key != Enc::kNone) {
    put("dev", KORA_NET_SSL_CERTIFICATE_E, row.key == Enc::kPem ? cred.key_pem() : bytes_of(cred.key_der()),
        true);
  }
  LogCapture log;
  EXPECT_EQ(SSL_certificate_load(row.hdl == 1 ? hdl_ : row.hdl, "/data/data_velto/.ssl/certs/dev",
                                 "/data/data_velto/.ssl/private_keys/dev"),
            row.status);
  EXPECT_TRUE(log.has(row.text, row.mask)) << row.text;
  EXPECT_EQ(log.count("ERROR: Reading certificate info from cert loc failed!! \r\n"),
            0u);  // no file looked at
  X509* installed = SSL_CTX_get0_certificate(ctx_);
  EXPECT_EQ(installed != nullptr && X509_cmp(installed, cred.cert.get()) == 0, row.cert_installed);
}

constexpr uint32_t E = kError, H = kHigh;
INSTANTIATE_TEST_SUITE_P(
    Rows, CertificateLoad,
    ::testing::Values(
        CertRow{0, false, Enc::kPem, Enc::kPem, -1,
                "File path parameters are invalid or obj handle passed is NULL\n", E, false},
        CertRow{0x7777, false, Enc::kPem, Enc::kPem, -2, "SSL object context is NULL\n", E, false},
        CertRow{1, true, Enc::kNone, Enc::kNone, -8,
                "PSK key is set. Setting both certificate and PSK is not supported\n", H, false},
        CertRow{1, false, Enc::kPem, Enc::kNone, -1,
                "ERROR: Reading private key info from cert loc failed!! \r\n", E, true},
        CertRow{1, false, Enc::kDer, Enc::kPem, -1, "Failed to set the private key \n", E, true},
        CertRow{1, false, Enc::kPem, Enc::kPem, 0, "Current certificate is in PEM format \n", H, true},
        CertRow{1, false, Enc::kDer, Enc::kDer, 0, "Current certificate is in DER format\n", H, true}));

// The format test sees the size cut to 16 bits; the decoder must still get the whole file.
TEST_F(LoadingTest, PemCertificateLargerThan64KiBLoads) {
  certgen::CertSpec spec;
  for (int i = 0; i < 2500; ++i) {
    spec.alt_names.push_back({GEN_DNS, "host-" + std::to_string(i) + ".example.test"});
  }
  const auto cred = certgen::make_self_signed(spec);
  ASSERT_GT(cred.cert_pem().size(), 65535u);
  put("big", KORA_NET_SSL_CERTIFICATE_E, cred.cert_pem());
  put("big", KORA_NET_SSL_CERTIFICATE_E, cred.key_pem(), true);
  EXPECT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_CERTIFICATE_E, "big"), 0);
  EXPECT_EQ(X509_cmp(SSL_CTX_get0_certificate(ctx_), cred.cert.get()), 0);
}

struct DispatchRow {
  int type;
  const char* name;  // "dev" names a stored certificate with key, and a CA list
  bool zero_handle;
  int status;
  const char* text;
  uint32_t mask;
  const char* recorded;  // name the object records afterwards
};

class Dispatch : public LoadingTest, public ::testing::WithParamInterface<DispatchRow> {};

TEST_P(Dispatch, ReturnsCodeLogsAndReleasesLock) {
  const DispatchRow& row = GetParam();
  const auto cred = certgen::make_self_signed({});
  put("dev", KORA_NET_SSL_CERTIFICATE_E, cred.cert_pem());
  put("dev", KORA_NET_SSL_CERTIFICATE_E, cred.key_pem(), true);
  put("nokey", KORA_NET_SSL_CERTIFICATE_E, cred.cert_pem());
  put("dev", KORA_NET_SSL_CA_LIST_E, cred.cert_pem());
  LogCapture log;
  EXPECT_EQ(
      SSL_cert_load(row.zero_handle ? 0 : hdl_, static_cast<kora_Net_SSL_Cert_Type_t>(row.type), row.name),
      row.status);
  EXPECT_TRUE(log.has(row.text, row.mask)) << row.text;
  EXPECT_TRUE(store_lock_is_free());
  EXPECT_STREQ(record().cert, row.recorded);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Dispatch,
    ::testing::Values(DispatchRow{1, nullptr, true, -2, "Invalid file name \n", E, ""},
                      DispatchRow{5, "dev", false, -1,
                                  "SSL_cert_load:Invalid abs path for the file name:dev type:5 \n", E, ""},
                      DispatchRow{4, "dev", false, -2, "Invalid Cert Type: 4", H, ""},
                      DispatchRow{1, "dev", true, -1,
                                  "File path parameters are invalid or obj handle passed is NULL\n", E, ""},
                      DispatchRow{1, "nokey", false, -1,
                                  "ERROR: Reading private key info from cert loc failed!! \r\n", E, ""},
                      DispatchRow{1, "dev", false, 0, "Current certificate is in PEM format \n", H, "dev"},
                      DispatchRow{2, "dev", false, 0, "Temp file removed successfully\n", H, ""}));

}  // namespace
}  // namespace kora::test
