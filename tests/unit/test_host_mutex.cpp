// Owner semantics of the mutex shim with real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "ivra_mutex.h"

namespace {

using namespace std::chrono_literals;

// Starts a thread that takes `m` and reports when it has it. The thread is detached: if
// the lock never comes, the process ends with it still waiting.
std::future<void> lock_in_thread(ivra_mutex_t* m) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> f = done->get_future();
  std::thread([m, done] {
    ivra_mutex_lock(m);
    done->set_value();
  }).detach();
  return f;
}

TEST(HostMutex, NullMutexIsRefused) {
  EXPECT_EQ(ivra_mutex_lock(nullptr), -1);
  EXPECT_EQ(ivra_mutex_unlock(nullptr), -1);
}

TEST(HostMutex, DoubleReleaseIsToleratedAndLockStaysUsable) {
  ivra_mutex_t m = IVRA_MUTEX_INITIALIZER;
  EXPECT_EQ(ivra_mutex_unlock(&m), 1) << "release without any hold";
  ASSERT_EQ(ivra_mutex_lock(&m), 0);
  EXPECT_EQ(ivra_mutex_unlock(&m), 0);
  EXPECT_EQ(ivra_mutex_unlock(&m), 1) << "second release of the same hold";
  // Nothing got into a bad state: another thread takes it at once.
  EXPECT_EQ(lock_in_thread(&m).wait_for(2s), std::future_status::ready);
}

TEST(HostMutex, ReleaseByNonHolderLeavesTheHoldInPlace) {
  ivra_mutex_t m = IVRA_MUTEX_INITIALIZER;
  ASSERT_EQ(ivra_mutex_lock(&m), 0);
  int other_result = 0;
  std::thread([&] { other_result = ivra_mutex_unlock(&m); }).join();
  EXPECT_EQ(other_result, 1);

  std::future<void> waiter = lock_in_thread(&m);
  EXPECT_EQ(waiter.wait_for(100ms), std::future_status::timeout) << "a stranger's release freed our hold";
  EXPECT_EQ(ivra_mutex_unlock(&m), 0);
  EXPECT_EQ(waiter.wait_for(5s), std::future_status::ready) << "the waiter was not woken by the real release";
}

TEST(HostMutex, HoldNeverReleasedBlocksOthersAndTheHolderItself) {
  ivra_mutex_t m = IVRA_MUTEX_INITIALIZER;
  std::promise<void> held;
  std::thread([&] {
    ivra_mutex_lock(&m);
    held.set_value();
    ivra_mutex_lock(&m);  // the holder asks again: waits like anyone else
  }).detach();
  held.get_future().wait();
  EXPECT_EQ(lock_in_thread(&m).wait_for(150ms), std::future_status::timeout);
  EXPECT_EQ(ivra_mutex_unlock(&m), 1) << "the main thread never held it";
}

TEST(HostMutex, ContendedIncrementsAreNotLost) {
  ivra_mutex_t m = IVRA_MUTEX_INITIALIZER;
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  long counter = 0;  // protected by m only
  std::atomic<int> inside{0};
  std::atomic<bool> overlap{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        ivra_mutex_lock(&m);
        if (inside.fetch_add(1) != 0) {
          overlap = true;
        }
        ++counter;
        inside.fetch_sub(1);
        ivra_mutex_unlock(&m);
      }
    });
  }
  for (auto& th : threads) {
    th.join();
  }
  EXPECT_FALSE(overlap);
  EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
}

}  // namespace
