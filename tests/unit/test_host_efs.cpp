// The flash file service on real files: flags and mode as given, whole writes, failures.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fs_public.h"
#include "private_root.h"

namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

int put(const std::string& path, const std::string& data, int oflag, int mode = 0600) {
  return efs_put(path.c_str(), const_cast<char*>(data.data()), data.size(), oflag, mode);
}

TEST(HostEfs, StatTellsExistingFromMissing) {
  fs_stat st{};
  EXPECT_EQ(efs_stat("/data/data_velto/", &st), 0);
  EXPECT_LT(efs_stat("/data/data_velto/missing", &st), 0);
  EXPECT_LT(efs_stat(nullptr, &st), 0);
}

// The store writes its key files with flags 0x41 (write-only, create, no truncation) and
// mode 0777.
TEST(HostEfs, StoreFlagsCreateWithModeAndDoNotTruncate) {
  ::umask(0);
  const std::string path = "/data/data_velto/takey.nonce";
  ASSERT_EQ(put(path, "abcdef", 0x41, 0x1ff), 6);
  fs_stat st{};
  ASSERT_EQ(efs_stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0777u);
  ASSERT_EQ(put(path, "XY", 0x41, 0x1ff), 2);
  EXPECT_EQ(slurp(path), "XYcdef") << "0x41 carries no truncation";
  ASSERT_EQ(put(path, "XY", O_WRONLY | O_TRUNC, 0), 2);
  EXPECT_EQ(slurp(path), "XY");
}

struct FailCase {
  const char* name;
  const char* path;
  int oflag;
};

class HostEfsFails : public testing::TestWithParam<FailCase> {};

TEST_P(HostEfsFails, ReturnsNegative) {
  ASSERT_EQ(put("/data/data_velto/exists", "x", O_WRONLY | O_CREAT), 1);
  EXPECT_LT(put(GetParam().path, "data", GetParam().oflag), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HostEfsFails,
    testing::Values(FailCase{"MissingDirectory", "/data/data_velto/no/such", O_WRONLY | O_CREAT},
                    FailCase{"NoCreateFlag", "/data/data_velto/new", O_WRONLY},
                    FailCase{"ExclusiveOverExisting", "/data/data_velto/exists", O_WRONLY | O_CREAT | O_EXCL},
                    FailCase{"ReadOnlyOpen", "/data/data_velto/exists", O_RDONLY},
                    FailCase{"Directory", "/data/data_velto/", O_WRONLY}),
    [](const auto& tp) { return std::string(tp.param.name); });

TEST(HostEfs, NullArgumentsAreRefused) {
  EXPECT_LT(efs_put(nullptr, const_cast<char*>("x"), 1, O_WRONLY | O_CREAT, 0600), 0);
  EXPECT_LT(efs_put("/data/data_velto/n", nullptr, 1, O_WRONLY | O_CREAT, 0600), 0);
  EXPECT_EQ(efs_stat("/data/data_velto/n", nullptr), -1);
}

TEST(HostEfs, ZeroBytesCreateAnEmptyFile) {
  const std::string path = "/data/data_velto/empty";
  EXPECT_EQ(efs_put(path.c_str(), nullptr, 0, O_WRONLY | O_CREAT, 0600), 0);
  fs_stat st{};
  ASSERT_EQ(efs_stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 0);
}

TEST(HostEfs, FullDiskFails) {
  ASSERT_EQ(::mkdir("/data/small", 0755), 0);
  ASSERT_EQ(kora::test::mount_tmpfs("/data/small", "size=64k"), "");
  const std::string big(256 * 1024, 'k');
  EXPECT_LT(put("/data/small/big", big, O_WRONLY | O_CREAT), 0);
}

void on_alarm(int) {}

// A slow reader on a FIFO and a timer signal without SA_RESTART make the writer's write()
// calls return early (short counts or EINTR); every byte must still arrive, in order.
TEST(HostEfs, ShortAndInterruptedWritesAreContinued) {
  const std::string fifo = "/data/data_velto/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::string data(256 * 1024, '\0');
  for (size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<char>((i * 131) ^ (i >> 9));
  }
  struct sigaction sa {};
  sa.sa_handler = on_alarm;  // no SA_RESTART
  ASSERT_EQ(::sigaction(SIGALRM, &sa, nullptr), 0);

  std::string received;
  std::thread reader([&] {
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &block, nullptr);
    const int fd = ::open(fifo.c_str(), O_RDONLY);
    char buf[4096];
    for (;;) {
      const ssize_t n = ::read(fd, buf, sizeof buf);
      if (n <= 0) {
        break;
      }
      received.append(buf, static_cast<size_t>(n));
      ::usleep(1000);
    }
    ::close(fd);
  });
  itimerval tick{{0, 300}, {0, 300}};
  ASSERT_EQ(::setitimer(ITIMER_REAL, &tick, nullptr), 0);
  const int rc = put(fifo, data, O_WRONLY);
  itimerval off{};
  ::setitimer(ITIMER_REAL, &off, nullptr);
  reader.join();
  EXPECT_EQ(rc, static_cast<int>(data.size()));
  EXPECT_TRUE(received == data) << "received " << received.size() << " of " << data.size() << " bytes";
}

}  // namespace
