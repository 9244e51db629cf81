// Output files: a private temporary file renamed into place.
#include "cli_output.h"

#include <fcntl.h>
#include <stdio.h>  // renameat2
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "write_all.h"

namespace kora::cli {

bool write_output_file(const std::string& path, const uint8_t* data, size_t size, bool replace,
                       std::string* why) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  std::string temp = dir + (slash == std::string::npos ? "/" : "") + ".kora-ssl-store-XXXXXX";
  std::vector<char> name(temp.begin(), temp.end());
  name.push_back('\0');
  // O_EXCL and mode 0600: a file only this call made, whatever was planted beside it.
  const int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) {
    *why = "cannot create a file in " + dir + ": " + std::strerror(errno);
    return false;
  }
  temp = name.data();
  bool ok = write_all(fd, data, size) && ::fsync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  if (!ok) {
    *why = "cannot write " + path + ": " + std::strerror(errno);
  } else if (::renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, path.c_str(), replace ? 0 : RENAME_NOREPLACE) !=
             0) {
    ok = false;
    *why = errno == EEXIST ? path + " exists; give --force to replace it"
                           : "cannot create " + path + ": " + std::strerror(errno);
  }
  if (!ok) {
    (void)::unlink(temp.c_str());
  }
  return ok;
}

}  // namespace kora::cli
