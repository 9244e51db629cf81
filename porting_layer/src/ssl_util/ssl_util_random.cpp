// Random numbers for the store (nonces). Alone in its file so a test can substitute it.
#include <openssl/rand.h>

#include "ssl_util.h"

extern "C" int ssl_get_random_number(uint16_t len, uint8_t* buf) {
  if (buf == nullptr) {
    return SSL_UTIL_ERR_INVALID;
  }
  if (len == 0) {
    return SSL_UTIL_OK;
  }
  return RAND_bytes(buf, len) == 1 ? SSL_UTIL_OK : SSL_UTIL_ERR_FAILED;
}
