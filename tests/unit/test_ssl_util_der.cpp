// Telling DER from PEM by content, on real encodings from the certificate factory and on
// crafted headers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kora_certgen.h"
#include "ssl_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

struct DerCase {
  const char* name;
  Bytes input;
  int expected;
};

std::vector<DerCase> cases() {
  const auto cred = kora::certgen::make_self_signed({});
  const Bytes der = cred.cert_der();
  Bytes der_with_tail = der;
  der_with_tail.insert(der_with_tail.end(), {0x30, 0x03, 0x02, 0x01, 0x00});
  return {
      {"DerCertificate", der, 1},
      {"DerPrivateKey", cred.key_der(), 1},
      {"DerFollowedByMoreData", der_with_tail, 1},
      {"ShortFormExactLength", {0x30, 0x03, 0x02, 0x01, 0x05}, 1},
      {"EmptySequence", {0x30, 0x00}, 1},
      {"PemCertificate", bytes(cred.cert_pem()), 0},
      {"PemKeyAfterBlankLines", bytes(" \r\n\t\n" + cred.key_pem()), 0},
      {"DerCutShort", Bytes(der.begin(), der.end() - 1), 0},
      {"IndefiniteLength", {0x30, 0x80, 0x02, 0x01, 0x05, 0x00, 0x00}, 0},
      {"LongFormForShortLength", {0x30, 0x81, 0x03, 0x02, 0x01, 0x05}, 0},
      {"LengthWithLeadingZero", {0x30, 0x82, 0x00, 0x83, 0x00}, 0},
      {"LengthOctetsMissing", {0x30, 0x82, 0x01}, 0},
      {"OnlyTheTag", {0x30}, 0},
      {"NotASequence", {0x02, 0x01, 0x05}, 0},
      {"PlainText", bytes("hello, world"), 0},
      {"DashesWithoutBegin", bytes("-----END CERTIFICATE-----\n"), 0},
  };
}

class DerDetection : public ::testing::TestWithParam<DerCase> {};

TEST_P(DerDetection, ClassifiesByContent) {
  const DerCase& c = GetParam();
  EXPECT_EQ(openssl_IsDerFormat(c.input.data(), static_cast<uint16_t>(c.input.size())), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Encodings, DerDetection, ::testing::ValuesIn(cases()),
                         [](const auto& p) { return std::string(p.param.name); });

TEST(DerDetectionArguments, NullBufferOrZeroLengthIsNotDer) {
  const uint8_t der[] = {0x30, 0x00};
  EXPECT_EQ(openssl_IsDerFormat(nullptr, 2), 0);
  EXPECT_EQ(openssl_IsDerFormat(der, 0), 0);
}

}  // namespace
