#include <openssl/x509_vfy.h>
#include <unistd.h>

#include <string>

#include "heap_watch.h"
#include "kora_certgen.h"
#include "loading_fixture.h"
#include "log_capture.h"

namespace kora::test {
namespace {

enum class Stored { kNone, kPemPair, kPskLoaded };

struct CaRow {
  const char* label;
  Stored stored;
  int status;
  const char* text;
  uint32_t mask;
  std::string removal;  // "removed", "failed" (logged), or "" when no removal may be attempted
  int certs_in_store;
};
std::ostream& operator<<(std::ostream& os, const CaRow& r) { return os << r.label; }

class CaListLoad : public LoadingTest, public ::testing::WithParamInterface<CaRow> {};

TEST_P(CaListLoad, ReturnsCodeLogsAndRemovesTemp) {
  const CaRow& row = GetParam();
  certgen::CertSpec ca_spec;
  ca_spec.is_ca = true;
  const auto ca1 = certgen::make_self_signed(ca_spec), ca2 = certgen::make_self_signed(ca_spec);
  if (row.stored != Stored::kNone) {
    put("cas", KORA_NET_SSL_CA_LIST_E, ca1.cert_pem() + ca2.cert_pem());
  }
  if (row.stored == Stored::kPskLoaded) {
    put("p", KORA_NET_SSL_PSK_TABLE_E, psk_table({{"id", "k"}}));
    ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_PSK_TABLE_E, "p"), 0);
  }
  const std::string pem = ca2.cert_pem();
  heap::watch_secrets({pem.substr(pem.size() / 2, 32)});
  LogCapture log;
  EXPECT_EQ(SSL_ca_list_load(hdl_, "/data/data_velto/.ssl/ca_lists/cas"), row.status);
  EXPECT_EQ(heap::secret_releases(true), 0) << "the decrypted CA list went back to the heap unwiped";
  EXPECT_TRUE(log.has(row.text, row.mask) && access("/data/data_velto/.ssl/temp", F_OK) != 0) << row.text;
  const bool removed = log.has("Temp file removed successfully\n", kHigh);
  EXPECT_EQ(row.removal, removed                                               ? "removed"
                         : log.has("Unable to delete the temp file\n", kError) ? "failed"
                                                                               : "");
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(ctx_))), row.certs_in_store);
}

// A list OpenSSL refuses (DER, text) is in the fault tests' garbage table; the temporary file
// goes on that path as on this one.
INSTANTIATE_TEST_SUITE_P(
    Rows, CaListLoad,
    ::testing::Values(
        CaRow{"PskLoaded", Stored::kPskLoaded, -8,
              "PSK key is not NULL. Don't support setting both certificate and PSK in SSL object\n", kHigh,
              "", 0},
        CaRow{"MissingFile", Stored::kNone, -1, "ERROR: Reading ca_list info from cert loc failed!! \r\n",
              kError, "failed", 0},
        CaRow{"PemListLoaded", Stored::kPemPair, 0, "Temp file removed successfully\n", kHigh, "removed",
              2}));

}  // namespace
}  // namespace kora::test
