#include <openssl/rand.h>

#include "fakes.h"
#include "ssl_util.h"

namespace kora::fake {
int random_fail_rc = 0;
}  // namespace kora::fake

extern "C" int ssl_get_random_number(uint16_t len, uint8_t* buf) {
  if (const int rc = kora::fake::random_fail_rc; rc != 0) {
    kora::fake::random_fail_rc = 0;
    return rc;
  }
  return RAND_bytes(buf, len) == 1 ? 0 : -1;
}
