#include "fake_efs.h"

#include <fcntl.h>
#include <unistd.h>

#include "fs_public.h"

namespace kora::fake_efs {
int fail_put_on_call = 0;
std::optional<int> stat_rc;
int stat_calls = 0;
std::vector<PutCall> puts;
}  // namespace kora::fake_efs

namespace efs = kora::fake_efs;

extern "C" int efs_stat(const char* path, fs_stat* buf) {
  ++efs::stat_calls;
  if (efs::stat_rc) {
    return *efs::stat_rc;
  }
  return stat(path, buf) == 0 ? 0 : -1;
}

extern "C" int efs_put(const char* path, void* data, size_t length, int oflag, int mode) {
  efs::puts.push_back({path, oflag, mode});
  if (efs::fail_put_on_call > 0 && --efs::fail_put_on_call == 0) {
    return -1;
  }
  const int fd = open(path, oflag, static_cast<mode_t>(mode));
  if (fd < 0) {
    return -1;
  }
  const bool whole = write(fd, data, length) == static_cast<ssize_t>(length);
  close(fd);
  return whole ? static_cast<int>(length) : -1;
}
