#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <unistd.h>

#include <tuple>

#include "loading_fixture.h"

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

}  // namespace
}  // namespace kora::test
