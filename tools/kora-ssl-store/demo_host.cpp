// Host state around the demo: data root, store tree, key blob files, root key.
#include "demo_host.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli_keys.h"
#include "kora_host_km.h"
#include "ssl_store.h"
#include "ssl_store_layout.h"

namespace kora::cli {
namespace {

// The mode asked for the directories above the data root that the demo makes (the
// tool's umask narrows it).
constexpr mode_t kSystemDirMode = 0755;
// Directory descriptors the removal of the demo's tree may hold open at once.
constexpr int kMaxOpenDirs = 16;

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

int remove_entry(const char* path, const struct stat* /*st*/, int /*flag*/, struct FTW* /*ftw*/) {
  return ::remove(path) == 0 ? 0 : -1;
}

}  // namespace

DemoHost::~DemoHost() { restore(); }

bool DemoHost::prepare(std::string* why) {
  // The data root's parent and the data root, named without the final "/".
  const std::string data_root(kDataRoot, std::strlen(kDataRoot) - 1);
  for (const std::string& dir : {data_root.substr(0, data_root.rfind('/')), data_root}) {
    if (exists(dir)) {
      continue;
    }
    if (::mkdir(dir.c_str(), kSystemDirMode) != 0) {
      *why = "cannot create " + dir + ": " + std::strerror(errno);
      restore();
      return false;
    }
    created_dirs_.emplace_back(dir);
  }
  // The store tree in creation order; removal runs backwards.
  for (size_t i = 0; i < KORA_STORE_DIR_COUNT; ++i) {
    const char* dir = ssl_store_layout_dir(i);
    if (!exists(dir)) {
      absent_store_dirs_.emplace_back(dir);
    }
  }
  for (const char* file : {kKeyBlobFile, g_ssl_ta_keyblob_nonce_file_name}) {
    if (!exists(file)) {
      absent_files_.emplace_back(file);
    }
  }
  // The key service makes its root key on first use. A host without one gets a temporary
  // root key for this run, removed afterwards, so no key file stays behind.
  if (std::strcmp(kora_km_backend(), "file") == 0 && !exists(kora_km_root_key())) {
    if (exists(kKeyBlobFile)) {
      // A key blob opens only under the root key it was wrapped with.
      *why = std::string("the store has a key blob but the key service's root key ") + kora_km_root_key() +
             " is missing: its credentials cannot be opened on this host (set KORA_KM_ROOT_KEY?)";
      restore();
      return false;
    }
    char dir_template[] = "/tmp/kora-demo-XXXXXX";
    if (::mkdtemp(dir_template) == nullptr) {
      *why = std::string("cannot create a temporary directory: ") + std::strerror(errno);
      restore();
      return false;
    }
    temp_key_dir_ = dir_template;
    temp_key_file_ = temp_key_dir_ + "/root.key";
    ::setenv("KORA_KM_ROOT_KEY", temp_key_file_.c_str(), 1);
  }
  prepared_ = true;
  return true;
}

void DemoHost::restore() {
  if (!temp_key_dir_.empty()) {
    if (exists(temp_key_file_) && ::unlink(temp_key_file_.c_str()) != 0) {
      leftovers_.push_back(temp_key_file_);
    }
    if (::rmdir(temp_key_dir_.c_str()) != 0) {
      leftovers_.push_back(temp_key_dir_);
    }
    temp_key_dir_.clear();
  }
  if (!created_dirs_.empty()) {
    // The data root is ours: everything below it was made by this run.
    const std::string root = created_dirs_.back();
    if (::nftw(root.c_str(), &remove_entry, kMaxOpenDirs, FTW_DEPTH | FTW_PHYS) != 0) {
      leftovers_.push_back(root);
    }
    for (auto it = created_dirs_.rbegin() + 1; it != created_dirs_.rend(); ++it) {
      if (::rmdir(it->c_str()) != 0) {
        leftovers_.push_back(*it);
      }
    }
    created_dirs_.clear();
  } else if (prepared_) {
    // An existing data root: only the key blob files and directories this run added go.
    for (const std::string& file : absent_files_) {
      if (exists(file) && ::unlink(file.c_str()) != 0) {
        leftovers_.push_back(file);
      }
    }
    for (auto it = absent_store_dirs_.rbegin(); it != absent_store_dirs_.rend(); ++it) {
      if (exists(*it) && ::rmdir(it->c_str()) != 0) {
        leftovers_.push_back(*it);
      }
    }
  }
  absent_files_.clear();
  absent_store_dirs_.clear();
  prepared_ = false;
}

}  // namespace kora::cli
