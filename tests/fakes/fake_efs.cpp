#include <fcntl.h>
#include <unistd.h>

#include "fakes.h"
#include "fs_public.h"

namespace kora::fake {
int fail_put_on_call = 0;
std::vector<std::string> put_calls;
}  // namespace kora::fake

using namespace kora::fake;

// Defined here too: the host keeps both calls in one member.
extern "C" int efs_stat(const char* path, fs_stat* buf) { return stat(path, buf) == 0 ? 0 : -1; }

extern "C" int efs_put(const char* path, void* data, size_t length, int oflag, int mode) {
  put_calls.push_back(std::string(path) + " " + std::to_string(oflag) + " " + std::to_string(mode));
  if (fail_put_on_call > 0 && --fail_put_on_call == 0) {
    return -1;
  }
  const int fd = open(path, oflag, static_cast<mode_t>(mode));
  const bool whole = fd >= 0 && write(fd, data, length) == static_cast<ssize_t>(length);
  close(fd);
  return whole ? static_cast<int>(length) : -1;
}
