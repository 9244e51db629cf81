// Substitute random number service: real random bytes unless told to fail.
#pragma once

#include <cstdint>
#include <vector>

namespace kora::fake_random {

extern int fail_next_rc;               // non-zero: the next call returns it, buffer unfilled
extern std::vector<uint16_t> lengths;  // the length argument of every call

}  // namespace kora::fake_random
