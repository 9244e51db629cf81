#include "fakes.h"
#include "ivra_mutex.h"

namespace kora::fake {
std::vector<int> unlock_results;
}  // namespace kora::fake

// Linked with -Wl,--wrap=ivra_mutex_unlock: every release goes to the host shim and its
// result is recorded.
extern "C" int __real_ivra_mutex_unlock(ivra_mutex_t* m);
extern "C" int __wrap_ivra_mutex_unlock(ivra_mutex_t* m) {
  const int result = __real_ivra_mutex_unlock(m);
  kora::fake::unlock_results.push_back(result);
  return result;
}
