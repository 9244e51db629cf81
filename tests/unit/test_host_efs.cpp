// The flash file service on real files: flags and mode as given, failures.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "file_bytes.h"
#include "fs_public.h"
#include "private_root.h"

namespace {

using kora::test::slurp;

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
  ASSERT_EQ(kora::test::mount_tmpfs("/data/small", "size=64k"), "");
  EXPECT_LT(put("/data/data_velto/no/such", "k", O_WRONLY | O_CREAT), 0);
  EXPECT_LT(put("/data/data_velto/new", "k", O_WRONLY), 0) << "no O_CREAT";
  EXPECT_LT(put("/data/small/big", std::string(256 * 1024, 'k'), O_WRONLY | O_CREAT), 0) << "disk full";
}

}  // namespace
