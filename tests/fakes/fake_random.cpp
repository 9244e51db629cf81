#include "fake_random.h"

#include <openssl/rand.h>

#include "ssl_util.h"

namespace kora::fake_random {
namespace {

struct State {
  int fail_rc = 0;
  std::vector<uint16_t> calls;
};

State& state() {
  static State s;
  return s;
}

}  // namespace

void reset() { state() = State{}; }
void fail_next(int rc) { state().fail_rc = rc; }
const std::vector<uint16_t>& calls() { return state().calls; }

}  // namespace kora::fake_random

extern "C" int ssl_get_random_number(uint16_t len, uint8_t* buf) {
  auto& s = kora::fake_random::state();
  s.calls.push_back(len);
  if (s.fail_rc != 0) {
    const int rc = s.fail_rc;
    s.fail_rc = 0;
    return rc;
  }
  return RAND_bytes(buf, len) == 1 ? 0 : -1;
}
