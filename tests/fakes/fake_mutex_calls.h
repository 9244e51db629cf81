// Substitute mutex shim that behaves like the host's (owner-tracking, a release without a
// hold tolerated) and records every call, so a test can see a double release.
#pragma once

#include <vector>

namespace kora::fake_mutex_calls {

void reset();
int lock_count();
// The result of every release since reset(): 0 released, 1 nothing held (tolerated).
std::vector<int> unlock_results();

}  // namespace kora::fake_mutex_calls
