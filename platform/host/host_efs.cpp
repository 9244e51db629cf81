// Host flash file service: whole-file writes and stat on a plain Linux file system.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>

#include "fs_public.h"

namespace kora::host {

int file_stat(const char* path, fs_stat* buf) {
  if (path == nullptr || buf == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return ::stat(path, buf) == 0 ? 0 : -1;
}

// Opens `path` with the caller's flags and mode, writes all of `data` (continuing short
// writes and interrupted calls) and closes it. Returns `length`, or -1 with errno set.
int file_put(const char* path, const void* data, size_t length, int oflag, int mode) {
  if (path == nullptr || (data == nullptr && length != 0) || length > static_cast<size_t>(INT_MAX)) {
    errno = EINVAL;
    return -1;
  }
  int fd = -1;
  do {
    fd = ::open(path, oflag | O_CLOEXEC, static_cast<mode_t>(mode));
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    return -1;
  }
  const auto* p = static_cast<const unsigned char*>(data);
  size_t done = 0;
  while (done < length) {
    const ssize_t n = ::write(fd, p + done, length - done);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      const int saved = errno;
      (void)::close(fd);
      errno = saved;
      return -1;
    }
    if (n == 0) {
      (void)::close(fd);
      errno = EIO;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  // A failed close can mean the data never reached the medium (NFS, quota): report it.
  if (::close(fd) != 0 && errno != EINTR) {
    return -1;
  }
  return static_cast<int>(length);
}

}  // namespace kora::host

extern "C" int efs_stat(const char* path, fs_stat* buf) { return kora::host::file_stat(path, buf); }

extern "C" int efs_put(const char* path, void* data, size_t length, int oflag, int mode) {
  return kora::host::file_put(path, data, length, oflag, mode);
}
