// Host mutex shim: a process mutex that knows its holder. Legacy callers release twice on
// some paths and leave the lock held on others; both must behave as documented in
// ivra_mutex.h, so ownership is tracked here rather than left to pthread_mutex_unlock.
#include <pthread.h>

#include "ivra_mutex.h"

namespace kora::host {

int mutex_lock(ivra_mutex_t* m) {
  if (m == nullptr) {
    return -1;
  }
  pthread_mutex_lock(&m->guard);
  // The holder itself waits too: a hold never released blocks every later locker.
  while (m->held != 0) {
    pthread_cond_wait(&m->released, &m->guard);
  }
  m->held = 1;
  m->owner = pthread_self();
  pthread_mutex_unlock(&m->guard);
  return 0;
}

int mutex_unlock(ivra_mutex_t* m) {
  if (m == nullptr) {
    return -1;
  }
  pthread_mutex_lock(&m->guard);
  if (m->held == 0 || pthread_equal(m->owner, pthread_self()) == 0) {
    // A release without a hold (a second release on one path, or another thread's hold) is
    // tolerated and changes nothing.
    pthread_mutex_unlock(&m->guard);
    return 1;
  }
  m->held = 0;
  pthread_cond_signal(&m->released);
  pthread_mutex_unlock(&m->guard);
  return 0;
}

}  // namespace kora::host

extern "C" int ivra_mutex_lock(ivra_mutex_t* mutex) { return kora::host::mutex_lock(mutex); }

extern "C" int ivra_mutex_unlock(ivra_mutex_t* mutex) { return kora::host::mutex_unlock(mutex); }
