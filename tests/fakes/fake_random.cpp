#include "fake_random.h"

#include <openssl/rand.h>

#include "ssl_util.h"

namespace kora::fake_random {
int fail_next_rc = 0;
std::vector<uint16_t> lengths;
}  // namespace kora::fake_random

using namespace kora::fake_random;

extern "C" int ssl_get_random_number(uint16_t len, uint8_t* buf) {
  lengths.push_back(len);
  if (const int rc = fail_next_rc; rc != 0) {
    fail_next_rc = 0;
    return rc;
  }
  return RAND_bytes(buf, len) == 1 ? 0 : -1;
}
