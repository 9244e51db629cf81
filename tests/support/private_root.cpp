#include "private_root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace kora::test {
namespace {

std::string errno_text(const std::string& what) { return what + ": " + std::strerror(errno); }

// Builds a new root in `staging` (a tmpfs): every top-level entry of the host root is
// bind-mounted or re-linked there, and "data" is a directory of the tmpfs itself.
std::string build_root(const std::string& staging) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/", ec)) {
    const std::string source = entry.path(), target = staging + source;
    if (source == "/data") {
      continue;
    }
    if (staging == source || staging.rfind(source + "/", 0) == 0) {
      mkdir(target.c_str(), 0755);  // the staging area lives under this entry: keep an empty directory
    } else if (entry.is_symlink(ec)) {
      std::filesystem::copy_symlink(source, target, ec);
    } else {
      if (entry.is_directory(ec)) {
        mkdir(target.c_str(), 0755);
      } else {
        std::ofstream(target).close();  // a file to bind over
      }
      if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        return errno_text("bind " + source);
      }
    }
    if (ec) {
      return source + ": " + ec.message();
    }
  }
  if (ec) {
    return "list /: " + ec.message();
  }
  if (mkdir((staging + "/data").c_str(), 0755) != 0) {
    return errno_text("mkdir data");
  }
  return {};
}

// The store's file system at `path`: a fresh tmpfs, or, when KORA_TEST_STORE_MOUNT names a
// mounted directory (a UBIFS or JFFS2 volume), a new empty directory on it bound in place.
// Those directories are left behind for the caller to inspect and clear.
std::string mount_store_fs(const std::string& path) {
  const char* base = std::getenv("KORA_TEST_STORE_MOUNT");
  if (base == nullptr || base[0] == '\0') {
    return mount_tmpfs(path, "mode=0755");
  }
  std::string dir = std::string(base) + "/store-XXXXXX";
  if (mkdtemp(dir.data()) == nullptr || chmod(dir.c_str(), 0755) != 0 ||
      mount(dir.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    return errno_text("make " + dir + " and bind it at " + path);
  }
  return {};
}

}  // namespace

std::string mount_tmpfs(const std::string& path, const std::string& options) {
  return mount("kora-test", path.c_str(), "tmpfs", 0, options.c_str()) == 0
             ? ""
             : errno_text("mount tmpfs at " + path);
}

std::string remount_read_only(const std::string& path) {
  return mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0
             ? ""
             : errno_text("remount " + path);
}

std::string enter_private_store_root() {
  if (unshare(CLONE_NEWNS) != 0) {
    return errno_text("unshare(CLONE_NEWNS) (tests need root)");
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return errno_text("make / private");
  }
  std::error_code ec;
  const std::filesystem::path cwd = std::filesystem::current_path(ec);
  if (std::filesystem::is_directory("/data", ec)) {
    // The host has a /data: hide it behind the store's file system in this namespace only.
    if (std::string why = mount_store_fs("/data"); !why.empty()) {
      return why;
    }
  } else {
    // No /data on the host: build a new root so that nothing is created on the host.
    const std::string staging = std::filesystem::is_directory("/mnt", ec) ? "/mnt" : "/tmp";
    std::string why = mount_tmpfs(staging, "mode=0755");
    why = why.empty() ? build_root(staging) : why;
    why = why.empty() ? mount_store_fs(staging + "/data") : why;
    if (!why.empty()) {
      return why;
    }
    if (chdir(staging.c_str()) != 0 || chroot(".") != 0) {
      return errno_text("chroot " + staging);
    }
    if (chdir(cwd.c_str()) != 0 && chdir("/") != 0) {
      return errno_text("chdir");
    }
  }
  if (mkdir("/data/data_velto", 0755) != 0) {
    return errno_text("mkdir /data/data_velto");
  }
  return {};
}

}  // namespace kora::test
