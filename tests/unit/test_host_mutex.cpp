// Owner semantics of the mutex shim with real threads, and its hold across processes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <future>
#include <thread>

#include "file_bytes.h"
#include "ivra_mutex.h"
#include "subprocess.h"

namespace kora::test {
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

TEST(HostMutex, StrayReleasesChangeNothingAndAHoldNeverReleasedBlocksEveryone) {
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
  // A hold never released blocks others and the holder itself.
  static ivra_mutex_t never = IVRA_MUTEX_INITIALIZER;
  static std::promise<void> held;
  std::thread([] {
    ivra_mutex_lock(&never);
    held.set_value();
    ivra_mutex_lock(&never);  // the holder asks again: it waits like anyone else
  }).detach();
  held.get_future().wait();
  EXPECT_EQ(lock_in_thread(&never).wait_for(150ms), std::future_status::timeout);
}

// A child that takes `m` and keeps it until it is killed; returns its pid once it holds it.
pid_t hold_in_child(ivra_mutex_t* m) {
  int ready[2];
  EXPECT_EQ(::pipe(ready), 0);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ivra_mutex_lock(m);
    (void)::write(ready[1], "h", 1);
    ::pause();
    _exit(0);
  }
  char c = 0;
  EXPECT_EQ(::read(ready[0], &c, 1), 1);
  ::close(ready[0]);
  ::close(ready[1]);
  return pid;
}

// How a child that asks for `m` ends (exit status), with its stderr in `err_path`.
int lock_in_child(ivra_mutex_t* m, const char* err_path) {
  return in_child([&] {
    (void)std::freopen(err_path, "w", stderr);
    ivra_mutex_lock(m);
    return 0;
  });
}

// Another process's hold keeps this one out for a bounded time, after which it ends naming
// the holder; once the holder dies the lock is free again.
TEST(HostMutexAcrossProcesses, WaitIsBoundedAndNamesTheHolderWhoseDeathFreesIt) {
  static ivra_mutex_t m = IVRA_MUTEX_INITIALIZER;
  ::setenv("KORA_SSL_LOCK_WAIT", "1", 1);
  const pid_t holder = hold_in_child(&m);
  EXPECT_EQ(lock_in_child(&m, "/data/waiter.err"), 75);
  const std::string said = slurp("/data/waiter.err");
  EXPECT_NE(said.find("locked by process " + std::to_string(holder)), std::string::npos) << said;
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  EXPECT_EQ(lock_in_child(&m, "/data/waiter.err"), 0);
}

}  // namespace
}  // namespace kora::test
