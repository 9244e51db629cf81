// show: one stored credential's details.
#include <cstdio>
#include <string>

#include "cli_details.h"
#include "cli_format.h"
#include "cli_report.h"
#include "cli_stored.h"
#include "commands.h"

namespace kora::cli {

int run_show(const Args& args) {
  Target t;
  if (const int rc = open_target(args, "show", &t); rc != kExitOk) {
    return rc;
  }
  Record r;
  std::string why;
  if (!describe(t.kind, t.name, &r, &why)) {
    return fail(escaped(why));
  }
  print_record(stdout, r, args.has("--json") ? Format::kJson : Format::kText);
  return kExitOk;
}

}  // namespace kora::cli
