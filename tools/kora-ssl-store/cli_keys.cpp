// Loading the provisioned key material, and start-up without shell noise.
#include "cli_keys.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "cli_files.h"
#include "cli_report.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {

int load_key_material() {
  struct stat st {};
  if (::stat(kStoreRoot, &st) != 0) {
    return fail(std::string("the store is not initialised (") + kStoreRoot +
                " is missing): run 'kora-ssl-store init' first");
  }
  if (::stat(kKeyBlobFile, &st) != 0) {
    return fail(std::string("the store has no key blob (") + kKeyBlobFile +
                " is missing): run 'kora-ssl-store init' to provision one");
  }
  if (const int rc = refuse_irregular_key_material(); rc != kExitOk) {
    return rc;
  }
  const int status = ssl_store_generate_keyblob_store_in_securefs_file();
  if (status != KORA_OK) {
    return fail_store("loading the store's key material failed", status);
  }
  return kExitOk;
}

int run_store_init_quietly() {
  if (diag_verbose()) {
    return ssl_store_init();
  }
  (void)std::fflush(stderr);
  const int saved = ::dup(STDERR_FILENO);
  const int null_fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (saved < 0 || null_fd < 0) {
    if (saved >= 0) {
      ::close(saved);
    }
    if (null_fd >= 0) {
      ::close(null_fd);
    }
    return ssl_store_init();
  }
  ::dup2(null_fd, STDERR_FILENO);
  ::close(null_fd);
  const int status = ssl_store_init();
  (void)std::fflush(stderr);
  ::dup2(saved, STDERR_FILENO);
  ::close(saved);
  return status;
}

}  // namespace kora::cli
