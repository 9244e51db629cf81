// Telling a DER certificate from PEM text by content.
#include <cctype>
#include <cstring>

#include "ssl_util.h"

namespace kora::util {
namespace {

constexpr char kPemBegin[] = "-----BEGIN";

// True when buf opens with a DER SEQUENCE whose definite, minimally encoded length fits in
// len bytes. Trailing bytes are allowed (a key or a second certificate may follow).
bool starts_with_der_sequence(const uint8_t* buf, size_t len) {
  if (len < 2 || buf[0] != 0x30) {
    return false;
  }
  size_t header = 2;
  size_t content = buf[1];
  if ((buf[1] & 0x80) != 0) {
    const size_t octets = buf[1] & 0x7f;
    // 0x80 is the indefinite form (not DER); more than four octets cannot describe a buffer
    // whose length fits in 16 bits.
    if (octets == 0 || octets > 4 || len < 2 + octets || buf[2] == 0) {
      return false;
    }
    content = 0;
    for (size_t i = 0; i < octets; ++i) {
      content = (content << 8) | buf[2 + i];
    }
    if (content < 0x80) {
      return false;  // a long form for a short length is not DER
    }
    header += octets;
  }
  return content <= len - header;
}

bool starts_with_pem(const uint8_t* buf, size_t len) {
  size_t i = 0;
  while (i < len && std::isspace(buf[i]) != 0) {
    ++i;
  }
  const size_t tag = sizeof kPemBegin - 1;
  return len - i >= tag && std::memcmp(buf + i, kPemBegin, tag) == 0;
}

}  // namespace
}  // namespace kora::util

extern "C" int openssl_IsDerFormat(const uint8_t* buf, uint16_t len) {
  if (buf == nullptr || len == 0) {
    return 0;
  }
  if (kora::util::starts_with_pem(buf, len)) {
    return 0;
  }
  return kora::util::starts_with_der_sequence(buf, len) ? 1 : 0;
}
