#include <pthread.h>

#include "fakes.h"
#include "ivra_mutex.h"

namespace kora::fake {
std::vector<int> unlock_results;
}  // namespace kora::fake

// Behaves like the host shim (owner-tracking, a release without a hold tolerated).
extern "C" int ivra_mutex_lock(ivra_mutex_t* m) {
  pthread_mutex_lock(&m->guard);
  while (m->held != 0) {
    pthread_cond_wait(&m->released, &m->guard);
  }
  m->held = 1;
  m->owner = pthread_self();
  pthread_mutex_unlock(&m->guard);
  return 0;
}

extern "C" int ivra_mutex_unlock(ivra_mutex_t* m) {
  pthread_mutex_lock(&m->guard);
  const int result = m->held != 0 && pthread_equal(m->owner, pthread_self()) != 0 ? 0 : 1;
  if (result == 0) {
    m->held = 0;
    pthread_cond_signal(&m->released);
  }
  kora::fake::unlock_results.push_back(result);
  pthread_mutex_unlock(&m->guard);
  return result;
}
