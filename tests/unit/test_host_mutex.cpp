// Owner semantics of the mutex shim with real threads.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "ivra_mutex.h"

namespace {

using namespace std::chrono_literals;

// A detached thread takes `m`; the future is ready once it has it. If the lock never comes,
// the process ends with the thread still waiting, so `m` must outlive the test body.
std::future<void> lock_in_thread(ivra_mutex_t* m) {
  auto done = std::make_shared<std::promise<void>>();
  std::thread([m, done] {
    ivra_mutex_lock(m);
    done->set_value();
  }).detach();
  return done->get_future();
}

TEST(HostMutex, ReleasesWithoutAHoldAreToleratedAndChangeNothing) {
  static ivra_mutex_t m = IVRA_MUTEX_INITIALIZER;
  EXPECT_EQ(ivra_mutex_unlock(&m), 1) << "release without any hold";
  ASSERT_EQ(ivra_mutex_lock(&m), 0);
  int stranger = 0;
  std::thread([&] { stranger = ivra_mutex_unlock(&m); }).join();
  EXPECT_EQ(stranger, 1);
  std::future<void> waiter = lock_in_thread(&m);
  EXPECT_EQ(waiter.wait_for(100ms), std::future_status::timeout) << "a stranger's release freed our hold";
  EXPECT_EQ(ivra_mutex_unlock(&m), 0);
  EXPECT_EQ(ivra_mutex_unlock(&m), 1) << "second release of the same hold";
  EXPECT_EQ(waiter.wait_for(5s), std::future_status::ready) << "the waiter was not woken";
}

TEST(HostMutex, HoldNeverReleasedBlocksOthersAndTheHolderItself) {
  static ivra_mutex_t m = IVRA_MUTEX_INITIALIZER;
  static std::promise<void> held;
  std::thread([] {
    ivra_mutex_lock(&m);
    held.set_value();
    ivra_mutex_lock(&m);  // the holder asks again: it waits like anyone else
  }).detach();
  held.get_future().wait();
  EXPECT_EQ(lock_in_thread(&m).wait_for(150ms), std::future_status::timeout);
}

}  // namespace
