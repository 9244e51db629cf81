// Creating output files safely.
#include "cli_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli_input.h"

namespace kora::cli {
namespace {

constexpr mode_t kOutputMode = 0644;

bool write_all(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool write_output_file(const std::string& path, const uint8_t* data, size_t size, Existing existing,
                       std::string* why) {
  if (path == kStdioPath) {
    if (std::fwrite(data, 1, size, stdout) != size || std::fflush(stdout) != 0) {
      *why = "writing to standard output failed";
      return false;
    }
    return true;
  }
  // O_NONBLOCK: opening a FIFO in the way must not hang; it is refused below as not regular.
  int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
  flags |= existing == Existing::kRefuse ? O_EXCL : 0;
  const int fd = ::open(path.c_str(), flags, kOutputMode);
  if (fd < 0) {
    if (errno == EEXIST) {
      *why = path + " exists: choose another file or give --force to replace it";
    } else if (errno == ELOOP) {
      *why = path + " is a symbolic link: give the path of a regular file";
    } else {
      *why = "cannot create " + path + ": " + std::strerror(errno);
    }
    return false;
  }
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (!ok) {
    *why = path + " is not a regular file: give the path of a regular file";
  } else if (::ftruncate(fd, 0) != 0 || !write_all(fd, data, size) || ::fsync(fd) != 0) {
    *why = "cannot write " + path + ": " + std::strerror(errno);
    ok = false;
  }
  if (::close(fd) != 0 && ok) {
    *why = "cannot write " + path + ": " + std::strerror(errno);
    ok = false;
  }
  return ok;
}

}  // namespace kora::cli
