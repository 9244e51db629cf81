// DER to PEM: the output compared with OpenSSL's own PEM writer, inputs that are no DER
// certificate, and null arguments.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

#include "kora_certgen.h"
#include "kora_net_ssl.h"
#include "log_capture.h"

namespace kora::test {
namespace {

std::string reference_pem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cert);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

struct ConvertCase {
  const char* label;
  certgen::KeyType key_type;
  size_t trailing_bytes;
};

void PrintTo(const ConvertCase& c, std::ostream* os) { *os << c.label; }

class PemConvertTest : public ::testing::TestWithParam<ConvertCase> {};

TEST_P(PemConvertTest, MatchesOpenSslPemWriter) {
  const ConvertCase& c = GetParam();
  certgen::CertSpec spec;
  spec.key_type = c.key_type;
  const auto cred = certgen::make_self_signed(spec);
  std::vector<uint8_t> der = cred.cert_der();
  const size_t der_size = der.size();
  der.insert(der.end(), c.trailing_bytes, 0x30);

  uint8_t* pem = nullptr;
  int pem_size = -7;
  LogCapture log;
  ASSERT_EQ(SSL_cert_der_2_pem(der.data(), static_cast<int>(der.size()), &pem, &pem_size), 1);
  ASSERT_NE(pem, nullptr);
  const std::string expected = reference_pem(cred.cert.get());
  ASSERT_EQ(pem_size, static_cast<int>(expected.size()));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(pem), static_cast<size_t>(pem_size)), expected);
  EXPECT_EQ(expected.rfind("-----END CERTIFICATE-----\n"), expected.size() - 26);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(der.size(), der_size + c.trailing_bytes);  // the input is not changed
  std::free(pem);
}

INSTANTIATE_TEST_SUITE_P(Certificates, PemConvertTest,
                         ::testing::Values(ConvertCase{"ec_p256", certgen::KeyType::kEcP256, 0},
                                           ConvertCase{"rsa_2048", certgen::KeyType::kRsa2048, 0},
                                           ConvertCase{"trailing_bytes_ignored", certgen::KeyType::kEcP256,
                                                       5}),
                         [](const auto& test_case) { return std::string(test_case.param.label); });

// Inputs that do not decode: result 0, the message at high level, OpenSSL's reason drained,
// and both outputs untouched.
struct NotDerCase {
  const char* label;
  int size_delta;  // added to the DER size
  bool as_pem;
  bool zero_size;
};

void PrintTo(const NotDerCase& c, std::ostream* os) { *os << c.label; }

class PemNotDerTest : public ::testing::TestWithParam<NotDerCase> {};

TEST_P(PemNotDerTest, ReturnsZeroAndLeavesOutputs) {
  const NotDerCase& c = GetParam();
  const auto cred = certgen::make_self_signed({});
  const std::string pem_text = cred.cert_pem();
  const std::vector<uint8_t> der = cred.cert_der();
  const void* input = c.as_pem ? static_cast<const void*>(pem_text.data()) : der.data();
  int size = c.as_pem ? static_cast<int>(pem_text.size()) : static_cast<int>(der.size()) + c.size_delta;
  if (c.zero_size) {
    size = 0;
  }

  uint8_t sentinel = 0;
  uint8_t* pem = &sentinel;
  int pem_size = -7;
  ERR_clear_error();
  LogCapture log;
  EXPECT_EQ(SSL_cert_der_2_pem(input, size, &pem, &pem_size), 0);
  EXPECT_EQ(pem, &sentinel);
  EXPECT_EQ(pem_size, -7);
  ASSERT_FALSE(log.messages().empty());
  EXPECT_EQ(log.messages()[0].text, "Inpuf certificate is not DER format, due to:\n    ");
  EXPECT_EQ(log.messages()[0].mask, kHigh);
  EXPECT_EQ(log.messages()[0].ss_id, 65);
  EXPECT_EQ(ERR_peek_error(), 0u);  // the reason went to the log
}

INSTANTIATE_TEST_SUITE_P(Inputs, PemNotDerTest,
                         ::testing::Values(NotDerCase{"pem_text", 0, true, false},
                                           NotDerCase{"truncated", -1, false, false},
                                           NotDerCase{"zero_size", 0, false, true},
                                           NotDerCase{"negative_size", -100000, false, false}),
                         [](const auto& test_case) { return std::string(test_case.param.label); });

TEST(PemArgumentsTest, NullArgumentsGiveMinusOneSilently) {
  const auto der = certgen::make_self_signed({}).cert_der();
  uint8_t sentinel = 0;
  uint8_t* pem = &sentinel;
  int pem_size = -7;
  struct {
    const char* label;
    const void* der;
    uint8_t** pem;
    int* size;
  } cases[] = {{"null der", nullptr, &pem, &pem_size},
               {"null pem", der.data(), nullptr, &pem_size},
               {"null size", der.data(), &pem, nullptr}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    LogCapture log;
    EXPECT_EQ(SSL_cert_der_2_pem(c.der, static_cast<int>(der.size()), c.pem, c.size), -1);
    EXPECT_TRUE(log.messages().empty());
    EXPECT_EQ(pem, &sentinel);
    EXPECT_EQ(pem_size, -7);
  }
}

}  // namespace
}  // namespace kora::test
