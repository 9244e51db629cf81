// init: the store tree and its key material.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "cli_files.h"
#include "cli_keys.h"
#include "cli_km.h"
#include "cli_report.h"
#include "commands.h"
#include "kora_net_ssl.h"

namespace kora::cli {

int run_init(const Args& args) {
  if (!args.positional.empty()) {
    return usage_error("init takes no arguments");
  }
  struct stat st {};
  if (::stat(kDataRoot, &st) != 0 || !S_ISDIR(st.st_mode)) {
    // The store never creates its data root; on a device it is the data partition.
    return fail(std::string("the data root ") + kDataRoot +
                " does not exist; create it (or mount the data partition) first");
  }
  if (const std::string why = tree_owner_problem(); !why.empty()) {
    return fail(why);
  }
  if (const int rc = refuse_irregular_key_material(); rc != kExitOk) {
    return rc;
  }
  bool had_key_blob = ::stat(kKeyBlobFile, &st) == 0;
  if (const int rc = prepare_root_key(args.has("--force-new-key"), &had_key_blob); rc != kExitOk) {
    return rc;
  }
  const int status = run_store_init_quietly();
  if (status != KORA_OK) {
    return fail_store("initialising the store failed", status);
  }
  // The store makes its directories with the process's umask: an older tree, or one made by
  // another program, is brought down to the owner only.
  if (const std::string why = make_tree_private(); !why.empty()) {
    return fail("the store tree could not be made private: " + why);
  }
  std::printf("store ready at %s (%s)\n", kStoreRoot,
              had_key_blob ? "existing key material loaded" : "new key material provisioned");
  return probe_key_material();
}

}  // namespace kora::cli
