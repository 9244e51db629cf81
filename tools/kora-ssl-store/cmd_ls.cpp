// ls: every name stored for one kind or for every kind, sorted; with -l, their details.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "cli_details.h"
#include "cli_files.h"
#include "cli_format.h"
#include "cli_keys.h"
#include "cli_names.h"
#include "cli_report.h"
#include "cli_stored.h"
#include "commands.h"

namespace kora::cli {
namespace {

// A certificate's names: those with a certificate file and those `csr` left with a key only.
bool names_of(const Kind& kind, std::vector<std::string>* names, std::string* why) {
  if (!stored_names(kind.type, false, names, why)) {
    return false;
  }
  if (kind.type != KORA_NET_SSL_CERTIFICATE_E) {
    return true;
  }
  std::vector<std::string> keys;
  if (!stored_names(kind.type, true, &keys, why)) {
    return false;
  }
  std::vector<std::string> all;
  std::set_union(names->begin(), names->end(), keys.begin(), keys.end(), std::back_inserter(all));
  names->swap(all);
  return true;
}

}  // namespace

int run_ls(const Args& args) {
  if (args.positional.size() > 1) {
    return usage_error("ls takes at most one KIND");
  }
  std::optional<Kind> only;
  if (!args.positional.empty()) {
    std::string why;
    only = parse_kind(args.positional[0], &why);
    if (!only) {
      return usage_error(why);
    }
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  const bool long_form = args.has("-l");
  std::vector<Record> records;
  int rc = kExitOk;
  for (const Kind& k : kKinds) {
    if (only && only->type != k.type) {
      continue;
    }
    std::vector<std::string> names;
    std::string why;
    if (!names_of(k, &names, &why)) {
      return fail(why);
    }
    for (const std::string& name : names) {
      Record r{k, name, {}};
      if (long_form &&
          (refuse_irregular_credential(k.type, name) != kExitOk || !describe(k, name, &r, &why))) {
        // One unreadable credential does not hide the others.
        (void)fail(escaped(why));
        rc = kExitFailed;
      }
      records.push_back(std::move(r));
    }
  }
  print_records(stdout, records, long_form, args.has("--json") ? Format::kJson : Format::kText);
  return rc;
}

}  // namespace kora::cli
