// Substitute mutex shim: behaves like the host's (owner-tracking, a release without a hold
// tolerated) and records every call, so a test can see a double release. Read the records
// on the calling thread once the call under test has returned.
#pragma once

#include <vector>

namespace kora::fake_mutex_calls {

extern int lock_count;
// The result of every release: 0 released, 1 nothing held (tolerated).
extern std::vector<int> unlock_results;

}  // namespace kora::fake_mutex_calls
