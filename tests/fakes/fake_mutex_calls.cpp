#include "fake_mutex_calls.h"

#include <pthread.h>

#include <mutex>

#include "ivra_mutex.h"

namespace kora::fake_mutex_calls {
namespace {

std::mutex g_record_guard;
int g_locks = 0;
std::vector<int> g_unlocks;

void record_unlock(int result) {
  const std::lock_guard<std::mutex> hold(g_record_guard);
  g_unlocks.push_back(result);
}

}  // namespace

void reset() {
  const std::lock_guard<std::mutex> hold(g_record_guard);
  g_locks = 0;
  g_unlocks.clear();
}

int lock_count() {
  const std::lock_guard<std::mutex> hold(g_record_guard);
  return g_locks;
}

std::vector<int> unlock_results() {
  const std::lock_guard<std::mutex> hold(g_record_guard);
  return g_unlocks;
}

}  // namespace kora::fake_mutex_calls

extern "C" int ivra_mutex_lock(ivra_mutex_t* m) {
  if (m == nullptr) {
    return -1;
  }
  pthread_mutex_lock(&m->guard);
  while (m->held != 0) {
    pthread_cond_wait(&m->released, &m->guard);
  }
  m->held = 1;
  m->owner = pthread_self();
  pthread_mutex_unlock(&m->guard);
  {
    const std::lock_guard<std::mutex> hold(kora::fake_mutex_calls::g_record_guard);
    ++kora::fake_mutex_calls::g_locks;
  }
  return 0;
}

extern "C" int ivra_mutex_unlock(ivra_mutex_t* m) {
  if (m == nullptr) {
    return -1;
  }
  pthread_mutex_lock(&m->guard);
  int result = 1;
  if (m->held != 0 && pthread_equal(m->owner, pthread_self()) != 0) {
    m->held = 0;
    pthread_cond_signal(&m->released);
    result = 0;
  }
  pthread_mutex_unlock(&m->guard);
  kora::fake_mutex_calls::record_unlock(result);
  return result;
}
