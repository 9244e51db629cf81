/* Mutex shim over a process mutex. The shim knows which thread holds it: a release by a
 * thread that does not hold it is tolerated (nothing is released, no error), so a double
 * release on one path neither fails nor deadlocks, and never frees another thread's hold.
 * A hold that is never released keeps every other locker waiting. */
#ifndef IVRA_MUTEX_H
#define IVRA_MUTEX_H

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  pthread_mutex_t guard; /* protects the fields below, held only briefly */
  pthread_cond_t released;
  pthread_t owner;
  int held;
} ivra_mutex_t;

#define IVRA_MUTEX_INITIALIZER \
  { PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0, 0 }

/* 0 when taken; -1 for a null mutex. Waits while any thread holds it (the holder included). */
int ivra_mutex_lock(ivra_mutex_t* mutex);
/* 0 when the calling thread's hold was released; 1 when the calling thread held nothing
 * (tolerated, nothing changes); -1 for a null mutex. */
int ivra_mutex_unlock(ivra_mutex_t* mutex);

#ifdef __cplusplus
}
#endif

#endif /* IVRA_MUTEX_H */
