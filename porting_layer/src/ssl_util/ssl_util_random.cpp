// Random numbers for the store (nonces). Alone in its file so a test can substitute it.
#include <openssl/rand.h>

#include "ssl_util.h"

extern "C" int ssl_get_random_number(uint16_t len, uint8_t* buf) {
  if (buf == nullptr) {
    return -2;
  }
  if (len == 0) {
    return 0;
  }
  return RAND_bytes(buf, len) == 1 ? 0 : -1;
}
