// File backend of the host key service: the root key file. Where a credential's secrecy
// rests on one file, the file is checked before it is trusted: an absolute path, a directory
// only its owner (or root) can change, a regular file owned by the effective user with no
// group or other permission, exactly 32 bytes. Symbolic links are never followed and a FIFO
// never blocks.
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "host_km.h"
#include "write_all.h"

namespace kora::km::file {
namespace {

std::string parent_of(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

// Creates every missing directory of `dir`, each with mode 0700; false with errno set to
// why not.
bool make_private_dirs(const std::string& dir) {
  struct stat st {};
  if (::stat(dir.c_str(), &st) == 0) {
    errno = S_ISDIR(st.st_mode) ? errno : ENOTDIR;
    return S_ISDIR(st.st_mode);
  }
  if (dir.size() > 1 && !make_private_dirs(parent_of(dir))) {
    return false;
  }
  if (::mkdir(dir.c_str(), 0700) != 0) {
    // Another process may have made it a moment ago.
    return errno == EEXIST && ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  }
  return ::chmod(dir.c_str(), 0700) == 0;
}

// The path and its directory, before any file in it is opened or made.
Result check_location(const std::string& path) {
  if (path.empty() || path[0] != '/') {
    return fail(kErrRootKey, "root key %s: KORA_KM_ROOT_KEY must be an absolute path", path.c_str());
  }
  const std::string dir = parent_of(path);
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0) {
    return errno == ENOENT
               ? kOk
               : fail(kErrRootKey, "root key directory %s: %s", dir.c_str(), std::strerror(errno));
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return fail(kErrRootKey, "root key directory %s is writable by others (mode %04o)", dir.c_str(),
                static_cast<unsigned>(st.st_mode & 07777));
  }
  if (st.st_uid != ::geteuid() && st.st_uid != 0) {
    return fail(kErrRootKey, "root key directory %s belongs to uid %u, not to the effective user or root",
                dir.c_str(), static_cast<unsigned>(st.st_uid));
  }
  return kOk;
}

// Makes a new root key at `path`. The key is written in full to a private temporary file
// (O_CREAT|O_EXCL, 0600) and then linked to its final name (renamed over it when
// `replace`); a plain link fails if another process got there first. Either way a reader
// never sees a partly written key.
Result create_root_key(const std::string& path, bool replace) {
  if (!make_private_dirs(parent_of(path))) {
    return fail(kErrRootKey, "cannot create the root key directory %s: %s", parent_of(path).c_str(),
                std::strerror(errno));
  }
  uint8_t key[kRootKeyLen];
  uint8_t salt[4];
  if (RAND_bytes(key, sizeof key) != 1 || RAND_bytes(salt, sizeof salt) != 1) {
    OPENSSL_cleanse(key, sizeof key);
    return fail(kErrCrypto, "no random bytes for a root key");
  }
  char suffix[40];
  (void)std::snprintf(suffix, sizeof suffix, ".tmp.%ld.%02x%02x%02x%02x", static_cast<long>(::getpid()),
                      salt[0], salt[1], salt[2], salt[3]);
  const std::string tmp = path + suffix;
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  bool written = fd >= 0 && ::fchmod(fd, 0600) == 0 && write_all(fd, key, sizeof key) && ::fsync(fd) == 0;
  OPENSSL_cleanse(key, sizeof key);
  if (fd >= 0 && ::close(fd) != 0) {
    written = false;
  }
  bool placed = false;
  if (written) {
    placed = replace ? ::rename(tmp.c_str(), path.c_str()) == 0
                     : (::link(tmp.c_str(), path.c_str()) == 0 || errno == EEXIST);
  }
  (void)::unlink(tmp.c_str());
  return placed ? kOk
                : fail(kErrRootKey, "cannot create the root key %s: %s", path.c_str(), std::strerror(errno));
}

constexpr int kMissing = -1, kRefused = -2;

// Opens the root key without following a link or blocking, and checks what was opened:
// the descriptor, kMissing or kRefused (with the reason recorded).
int open_checked(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) {
      return kMissing;
    }
    if (errno == ELOOP) {
      fail(kErrRootKey, "root key %s is a symbolic link; it must be a regular file", path.c_str());
    } else {
      fail(kErrRootKey, "root key %s: %s", path.c_str(), std::strerror(errno));
    }
    return kRefused;
  }
  struct stat st {};
  const char* rule = nullptr;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    rule = "is not a regular file";
  } else if (st.st_uid != ::geteuid()) {
    rule = "is not owned by the effective user";
  } else if ((st.st_mode & 077) != 0) {
    rule = "has group or other permission bits; it must be 0600 or narrower";
  } else if (st.st_size != static_cast<off_t>(kRootKeyLen)) {
    rule = "is not 32 bytes long";
  }
  if (rule != nullptr) {
    (void)::close(fd);
    fail(kErrRootKey, "root key %s %s (mode %04o, uid %u)", path.c_str(), rule,
         static_cast<unsigned>(st.st_mode & 07777), static_cast<unsigned>(st.st_uid));
    return kRefused;
  }
  return fd;
}

}  // namespace

Result load_root_key(uint8_t key[kRootKeyLen], bool create) {
  const std::string path = root_key_path();
  Result r = check_location(path);
  if (r != kOk) {
    return r;
  }
  int fd = open_checked(path);
  if (fd == kMissing) {
    if (!create) {
      return fail(kErrRootKey,
                  "root key %s is missing while a key blob exists: a new one would orphan every credential "
                  "sealed under the old one (kora-ssl-store init --force-new-key starts over)",
                  path.c_str());
    }
    r = create_root_key(path, false);
    if (r != kOk) {
      return r;
    }
    fd = open_checked(path);
  }
  if (fd < 0) {
    return kErrRootKey;
  }
  // One byte more than expected, to notice a file that grew after fstat.
  uint8_t buf[kRootKeyLen + 1];
  size_t got = 0;
  while (got < sizeof buf) {
    const ssize_t n = ::read(fd, buf + got, sizeof buf - got);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      break;
    }
    got += static_cast<size_t>(n);
  }
  (void)::close(fd);
  const bool ok = got == kRootKeyLen;
  if (ok) {
    std::memcpy(key, buf, kRootKeyLen);
  }
  OPENSSL_cleanse(buf, sizeof buf);
  return ok ? kOk : fail(kErrRootKey, "root key %s could not be read in full", path.c_str());
}

int root_key_state() {
  const std::string path = root_key_path();
  const Result r = check_location(path);
  if (r != kOk) {
    return r;
  }
  const int fd = open_checked(path);
  if (fd >= 0) {
    (void)::close(fd);
    return 1;
  }
  return fd == kMissing ? 0 : kErrRootKey;
}

Result make_root_key(bool replace) {
  const std::string path = root_key_path();
  const Result r = check_location(path);
  return r != kOk ? r : create_root_key(path, replace);
}

}  // namespace kora::km::file
