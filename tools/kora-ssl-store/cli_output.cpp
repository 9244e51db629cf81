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
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    (void)::close(fd);
    *why = path + " is not a regular file: give the path of a regular file";
    return false;
  }
  FILE* f = ::fdopen(fd, "w");
  if (f == nullptr) {
    (void)::close(fd);
    *why = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  bool ok = ::ftruncate(fd, 0) == 0 && std::fwrite(data, 1, size, f) == size && std::fflush(f) == 0 &&
            ::fsync(fd) == 0;
  ok = std::fclose(f) == 0 && ok;
  if (!ok) {
    *why = "cannot write " + path + ": " + std::strerror(errno);
  }
  return ok;
}

}  // namespace kora::cli
