// The scoped hold of an ivra mutex for ordinary critical sections: taken on construction,
// released when the guard goes, on every return. A bare ivra_mutex_lock in the code means a
// path keeps the lock held (or releases it twice) on purpose, and says so where it happens.
#pragma once

#include "ivra_mutex.h"

namespace kora {

class IvraLock {
 public:
  explicit IvraLock(ivra_mutex_t* mutex) : mutex_(mutex) { (void)ivra_mutex_lock(mutex_); }
  ~IvraLock() { unlock(); }
  IvraLock(const IvraLock&) = delete;
  IvraLock& operator=(const IvraLock&) = delete;

  // Releases before the scope ends, where what follows (a log line, a handshake) must run
  // without the lock.
  void unlock() {
    if (mutex_ != nullptr) {
      (void)ivra_mutex_unlock(mutex_);
      mutex_ = nullptr;
    }
  }

 private:
  ivra_mutex_t* mutex_;
};

}  // namespace kora
