// Store files checked before the store opens them, and the tree's owner and modes.
#include "cli_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli_format.h"
#include "cli_keys.h"
#include "cli_names.h"
#include "cli_report.h"
#include "cli_stored.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

// The modes of the store tree: its owner alone reads, writes and enters.
constexpr mode_t kPrivateDirMode = S_IRWXU;
constexpr mode_t kPrivateFileMode = S_IRUSR | S_IWUSR;

const char* type_word(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFLNK:
      return "a symbolic link";
    case S_IFIFO:
      return "a FIFO";
    case S_IFDIR:
      return "a directory";
    case S_IFSOCK:
      return "a socket";
    case S_IFCHR:
    case S_IFBLK:
      return "a device";
    default:
      return "not a regular file";
  }
}

constexpr const char* kTreeHolds = "the store tree holds only directories and regular files";

std::string errno_text(const std::string& path) { return path + ": " + std::strerror(errno); }

std::string owner_problem(const std::string& path, const struct stat& st) {
  if (st.st_uid != ::geteuid()) {
    return path + " belongs to user " + std::to_string(st.st_uid) + ", not to this user (" +
           std::to_string(::geteuid()) + ")";
  }
  return "";
}

// Walks the directory open at `dir_fd` (named `path`, ending in "/"), never following a link.
std::string make_private(int dir_fd, const std::string& path) {
  DIR* dir = ::fdopendir(dir_fd);
  if (dir == nullptr) {
    std::string why = errno_text(path);
    (void)::close(dir_fd);
    return why;
  }
  std::string why;
  while (why.empty()) {
    errno = 0;
    // Each stream is this walk's own, on one thread: readdir is safe, readdir_r deprecated.
    // cppcheck-suppress readdirCalled
    const dirent* entry = ::readdir(dir);
    if (entry == nullptr) {
      why = errno != 0 ? errno_text(path) : "";
      break;
    }
    const std::string name = entry->d_name;
    if (name == "." || name == "..") {
      continue;
    }
    const std::string child = path + escaped(name);
    // Non-blocking: a FIFO planted here must not hold init up.
    const int fd = ::openat(::dirfd(dir), entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      why = errno == ELOOP ? child + " is a symbolic link; " + kTreeHolds : errno_text(child);
      break;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
      why = errno_text(child);
    } else if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) {
      why = child + " is " + type_word(st.st_mode) + "; " + kTreeHolds;
    } else {
      why = owner_problem(child, st);
    }
    if (why.empty() && ::fchmod(fd, S_ISDIR(st.st_mode) ? kPrivateDirMode : kPrivateFileMode) != 0) {
      why = errno_text(child);
    }
    if (why.empty() && S_ISDIR(st.st_mode)) {
      why = make_private(fd, child + "/");  // the directory stream owns the descriptor now
    } else {
      (void)::close(fd);
    }
  }
  (void)::closedir(dir);
  return why;
}

}  // namespace

std::string store_file_problem(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) {
    return errno == ENOENT ? "" : errno_text(path);
  }
  if (!S_ISREG(st.st_mode)) {
    return path + " is " + type_word(st.st_mode) + ", not a regular file; the store will not open it";
  }
  return "";
}

int refuse_irregular_credential(kora_Net_SSL_Cert_Type_t type, const std::string& name) {
  for (const bool key : {false, true}) {
    if (key && type != KORA_NET_SSL_CERTIFICATE_E) {
      break;
    }
    const std::string path = stored_path(name, type, key);
    if (path.empty()) {
      continue;  // the store refuses the name itself
    }
    if (const std::string why = store_file_problem(path); !why.empty()) {
      return fail(why);
    }
  }
  return kExitOk;
}

int refuse_irregular_key_material() {
  for (const char* path : {kKeyBlobFile, g_ssl_ta_keyblob_nonce_file_name}) {
    if (const std::string why = store_file_problem(path); !why.empty()) {
      return fail(why);
    }
  }
  return kExitOk;
}

std::string tree_owner_problem() {
  for (const char* path : {kDataRoot, kStoreRoot}) {
    struct stat st {};
    if (::lstat(path, &st) != 0) {
      if (errno == ENOENT && std::string(path) == kStoreRoot) {
        break;  // init is about to make it
      }
      return errno_text(path);
    }
    if (!S_ISDIR(st.st_mode)) {
      return std::string(path) + " is " + type_word(st.st_mode) + ", not a directory";
    }
    if (std::string why = owner_problem(path, st); !why.empty()) {
      return why + "; refusing to keep credentials there";
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      char mode[sizeof "07777"];
      (void)std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & ALLPERMS));
      return std::string(path) + " is writable by other users (mode " + mode +
             "); refusing to keep credentials there";
    }
  }
  return "";
}

std::string make_tree_private() {
  const int fd = ::open(kStoreRoot, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    return errno_text(kStoreRoot);
  }
  if (::fchmod(fd, kPrivateDirMode) != 0) {
    std::string why = errno_text(kStoreRoot);
    (void)::close(fd);
    return why;
  }
  return make_private(fd, kStoreRoot);
}

}  // namespace kora::cli
