// The flash file service on real files: flags and mode as given, whole writes, failures.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "fs_public.h"
#include "private_root.h"

namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

int put(const char* path, const std::string& data, int oflag, int mode = 0600) {
  return efs_put(path, const_cast<char*>(data.data()), data.size(), oflag, mode);
}

// The store writes its key files with flags 0x41 (write-only, create, no truncation), mode 0777.
TEST(HostEfs, StoreFlagsCreateWithModeAndDoNotTruncate) {
  ::umask(0);
  const char* path = "/data/data_velto/takey.nonce";
  fs_stat st{};
  EXPECT_LT(efs_stat(path, &st), 0);
  ASSERT_EQ(put(path, "abcdef", 0x41, 0x1ff), 6);
  ASSERT_EQ(efs_stat(path, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0777u);
  ASSERT_EQ(put(path, "XY", 0x41, 0x1ff), 2);
  EXPECT_EQ(slurp(path), "XYcdef") << "0x41 carries no truncation";
  ASSERT_EQ(put(path, "", O_WRONLY | O_TRUNC), 0);
  EXPECT_EQ(slurp(path), "");
}

TEST(HostEfs, FailuresReturnNegative) {
  ASSERT_EQ(put("/data/data_velto/exists", "x", O_WRONLY | O_CREAT), 1);
  ASSERT_EQ(::mkdir("/data/small", 0755), 0);
  ASSERT_EQ(kora::test::mount_tmpfs("/data/small", "size=64k"), "");
  const struct {
    const char* path;
    int oflag;
    size_t size;
  } cases[] = {{"/data/data_velto/no/such", O_WRONLY | O_CREAT, 4},
               {"/data/data_velto/new", O_WRONLY, 4},  // no O_CREAT
               {"/data/data_velto/exists", O_WRONLY | O_CREAT | O_EXCL, 4},
               {"/data/data_velto/exists", O_RDONLY, 4},
               {"/data/data_velto/", O_WRONLY, 4},
               {nullptr, O_WRONLY, 4},
               {"/data/small/big", O_WRONLY | O_CREAT, 256 * 1024}};  // disk full
  for (const auto& c : cases) {
    EXPECT_LT(put(c.path, std::string(c.size, 'k'), c.oflag), 0) << (c.path ? c.path : "null");
  }
}

// A slow reader on a FIFO and a timer signal without SA_RESTART make write() return early
// (short counts and EINTR); every byte must still arrive, in order.
TEST(HostEfs, ShortAndInterruptedWritesAreContinued) {
  const char* fifo = "/data/data_velto/fifo";
  ASSERT_EQ(::mkfifo(fifo, 0600), 0);
  std::string data(256 * 1024, '\0');
  for (size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<char>((i * 131) ^ (i >> 9));
  }
  struct sigaction sa {};
  sa.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGALRM, &sa, nullptr), 0);
  std::string received;
  std::thread reader([&] {
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &block, nullptr);
    const int fd = ::open(fifo, O_RDONLY);
    char buf[4096];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0; ::usleep(1000)) {
      received.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
  });
  itimerval tick{{0, 300}, {0, 300}}, off{};
  ASSERT_EQ(::setitimer(ITIMER_REAL, &tick, nullptr), 0);
  const int rc = put(fifo, data, O_WRONLY);
  ::setitimer(ITIMER_REAL, &off, nullptr);
  reader.join();
  EXPECT_EQ(rc, static_cast<int>(data.size()));
  EXPECT_TRUE(received == data) << "received " << received.size() << " of " << data.size() << " bytes";
}

}  // namespace
