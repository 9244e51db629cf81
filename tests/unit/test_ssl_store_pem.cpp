// DER to PEM: the output against OpenSSL's own PEM writer, inputs that are no DER certificate,
// and null arguments.
#include <openssl/err.h>
#include <openssl/pem.h>

#include "kora_certgen.h"
#include "storage_fixture.h"

namespace kora::test {

// Converts like OpenSSL's own PEM writer, ignoring trailing bytes, and logs nothing. 0 for what
// does not decode, with the message at high level and OpenSSL's reason drained to the log; -1
// without a message for a null argument. A refusal leaves the outputs untouched.
TEST(PemTest, ConvertsLikeOpenSslPemWriterOrLeavesOutputsUntouched) {
  const auto cred = certgen::make_self_signed({});
  BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cred.cert.get());
  char* data = nullptr;
  const long pem_len = BIO_get_mem_data(bio.get(), &data);  // fills data first
  const std::string expected(data, static_cast<size_t>(pem_len)), text = cred.cert_pem();
  const std::vector<uint8_t> der = cred.cert_der();
  std::vector<uint8_t> padded = der;
  padded.insert(padded.end(), 5, 0x30);
  const struct {
    const void* input;
    size_t size;
    bool null_size;
    int expected;
  } cases[] = {{padded.data(), padded.size(), false, 1},
               {text.data(), text.size(), false, 0},
               {der.data(), 0, false, 0},
               {der.data(), der.size(), true, -1}};
  for (const auto& c : cases) {
    ERR_clear_error();
    LogCapture log;
    uint8_t sentinel = 0;
    uint8_t* pem = &sentinel;
    int pem_size = -7;
    ASSERT_EQ(SSL_cert_der_2_pem(c.input, static_cast<int>(c.size), &pem, c.null_size ? nullptr : &pem_size),
              c.expected)
        << c.size;
    if (c.expected == 1) {
      ASSERT_EQ(pem_size, static_cast<int>(expected.size()));
      EXPECT_TRUE(std::string(reinterpret_cast<char*>(pem), expected.size()) == expected &&
                  log.messages().empty());
      std::free(pem);
      continue;
    }
    EXPECT_TRUE(pem == &sentinel && pem_size == -7);
    ASSERT_EQ(log.messages().size() >= 2, c.expected == 0) << "no OpenSSL reason after the message";
    const char* const not_der = "Inpuf certificate is not DER format, due to:\n    ";
    EXPECT_TRUE(c.expected != 0 || (log.messages()[0].text == not_der && log.has(not_der, kHigh)));
  }
}

}  // namespace kora::test
