// ls: the names stored for one kind or for every kind.
#include <cstdio>
#include <string>

#include "cli_keys.h"
#include "cli_names.h"
#include "cli_report.h"
#include "commands.h"
#include "kora_net_ssl.h"

namespace kora::cli {

int run_ls(const Args& args) {
  if (args.positional.size() > 1) {
    return usage_error("ls takes at most one KIND");
  }
  std::optional<Kind> only;
  if (!args.positional.empty()) {
    only = parse_kind(args.positional[0]);
    if (!only) {
      return usage_error("unknown kind '" + args.positional[0] + "': use " + kind_words());
    }
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  for (const Kind* k = kinds_begin(); k != kinds_end(); ++k) {
    if (only && only->type != k->type) {
      continue;
    }
    kora_Net_SSL_Cert_List_t list{};
    const int n = SSL_cert_name_list(k->type, &list);
    if (n < 0) {
      return fail_store(std::string("listing the stored ") + k->title + "s failed", n);
    }
    for (int i = 0; i < n && i < 10; ++i) {
      // A name planted in the store by hand may hold any byte.
      std::printf("%-4s %s\n", k->word, escaped(list.name[i]).c_str());
    }
    if (n >= 10) {
      (void)std::fprintf(
          stderr, "kora-ssl-store ls: the store lists at most 10 names per kind; more %s names may exist\n",
          k->word);
    }
  }
  return kExitOk;
}

}  // namespace kora::cli
