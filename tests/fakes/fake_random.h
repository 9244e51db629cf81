// Substitute random number service: real random bytes unless told to fail.
#pragma once

#include <cstdint>
#include <vector>

namespace kora::fake_random {

void reset();
// The next call returns `rc` (non-zero) without filling the buffer.
void fail_next(int rc);
// The length argument of every call.
const std::vector<uint16_t>& calls();

}  // namespace kora::fake_random
