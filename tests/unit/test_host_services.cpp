// The host platform services against the real system: what the default log sink prints, the
// flash file service on real files, the shell command runner, and the mutex shim's owner
// semantics with real threads and its hold across processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <thread>

#include "ds_system.h"
#include "file_bytes.h"
#include "fs_public.h"
#include "ivra_mutex.h"
#include "msg_diag.h"
#include "private_root.h"
#include "subprocess.h"

namespace kora::test {
namespace {

using namespace std::chrono_literals;

TEST(DefaultSink, PrintsOneLinePerMessageAndHighOnlyWhenVerbose) {
  const struct {
    uint32_t mask;
    int verbose;
    const char *fmt, *text, *printed;
  } cases[] = {
      {0x8, 0, "%s", "SSL directory unavailable \n", "ERROR ssl_store:42 SSL directory unavailable \n"},
      {0x8, 0, "%s", "Keyblob is generated", "ERROR ssl_store:42 Keyblob is generated\n"},
      {0x4, 0, "%s", "Root directory unavailable\n", ""},
      {0x4, 1, "%s", "Root directory unavailable\n", "HIGH ssl_store:42 Root directory unavailable\n"},
      {0x8, 0, "[%s] 5%% %d", "x", "ERROR ssl_store:42 [x] 5% %d\n"}};
  for (const auto& c : cases) {
    const msg_const_type site = {{42, 65, c.mask}, c.fmt, "ssl_store"};
    msg_set_verbose(c.verbose);
    testing::internal::CaptureStderr();
    msg_sprintf(&site, c.text);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.printed) << c.fmt << " " << c.text;
  }
}

int put(const char* path, const std::string& data, int oflag, int mode = 0600) {
  return efs_put(path, const_cast<char*>(data.data()), data.size(), oflag, mode);
}

// The store writes its key files with flags 0x41 (write-only, create, no truncation), mode 0777;
// a missing directory, no O_CREAT and a full disk fail with a negative result.
TEST(HostEfs, StoreFlagsCreateWithModeAndDoNotTruncateAndFailuresReturnNegative) {
  ::umask(0);
  const char* path = "/data/data_velto/takey.nonce";
  fs_stat st{};
  EXPECT_LT(efs_stat(path, &st), 0);
  ASSERT_EQ(put(path, "abcdef", 0x41, 0x1ff), 6);
  ASSERT_EQ(efs_stat(path, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0777u);
  ASSERT_EQ(put(path, "XY", 0x41, 0x1ff), 2);
  EXPECT_EQ(slurp(path), "XYcdef") << "0x41 carries no truncation";
  ASSERT_EQ(::mkdir("/data/small", 0755), 0);
  ASSERT_EQ(mount_tmpfs("/data/small", "size=64k"), "");
  EXPECT_LT(put("/data/data_velto/no/such", "k", O_WRONLY | O_CREAT), 0);
  EXPECT_LT(put("/data/data_velto/new", "k", O_WRONLY), 0) << "no O_CREAT";
  EXPECT_LT(put("/data/small/big", std::string(256 * 1024, 'k'), O_WRONLY | O_CREAT), 0) << "disk full";
}

// The shell runner's results, and completion before it returns.
TEST(Shell, ReturnsTheShellsStatusForTheGivenLengthOnceTheEffectIsVisible) {
  EXPECT_EQ(ds_system_call("kill -9 $$", 10), 128 + 9);
  EXPECT_EQ(ds_system_call("exit 7; exit 9", 6), 7) << "only `length` characters run";
  EXPECT_EQ(ds_system_call(nullptr, 4), -1);
  const std::string line =
      "sleep 0.2 && mkdir /data/data_velto/.ssl/ && echo done > /data/data_velto/.ssl/mark";
  ASSERT_EQ(ds_system_call(line.c_str(), line.size()), 0);
  EXPECT_EQ(slurp("/data/data_velto/.ssl/mark"), "done\n");
}

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
  EXPECT_EQ(std::async(std::launch::async, [] { return ivra_mutex_unlock(&m); }).get(), 1);
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

// A child that takes `m` and keeps it until it is killed; returns its pid once it holds it
// (the child stops itself then, holding on).
pid_t hold_in_child(ivra_mutex_t* m) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ivra_mutex_lock(m);
    ::raise(SIGSTOP);
    _exit(0);
  }
  EXPECT_EQ(::waitpid(pid, nullptr, WUNTRACED), pid);
  return pid;
}

// Another process's hold keeps this one out for a bounded time, after which it ends naming
// the holder; once the holder dies the lock is free again.
TEST(HostMutexAcrossProcesses, WaitIsBoundedAndNamesTheHolderWhoseDeathFreesIt) {
  static ivra_mutex_t m = IVRA_MUTEX_INITIALIZER;
  ::setenv("KORA_SSL_LOCK_WAIT", "1", 1);
  // How a child that asks for `m` ends (exit status), with its stderr in /data/waiter.err.
  const auto lock_in_child = [] {
    (void)std::freopen("/data/waiter.err", "w", stderr);
    return ivra_mutex_lock(&m);
  };
  const pid_t holder = hold_in_child(&m);
  EXPECT_EQ(in_child(lock_in_child), 75);
  const std::string said = slurp("/data/waiter.err");
  EXPECT_NE(said.find("locked by process " + std::to_string(holder)), std::string::npos) << said;
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  EXPECT_EQ(in_child(lock_in_child), 0);
}

}  // namespace
}  // namespace kora::test
