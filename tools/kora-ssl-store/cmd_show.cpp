// show: one stored credential's details.
#include <cstdio>
#include <string>

#include "cli_details.h"
#include "cli_format.h"
#include "cli_keys.h"
#include "cli_names.h"
#include "cli_report.h"
#include "commands.h"

namespace kora::cli {

int run_show(const Args& args) {
  if (args.positional.size() != 2) {
    return usage_error("show needs KIND and NAME");
  }
  Kind kind{};
  const std::string& name = args.positional[1];
  if (const std::string why = target_problem(args.positional[0], name, &kind); !why.empty()) {
    return usage_error(why);
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  Record r;
  std::string why;
  if (!describe(kind, name, &r, &why)) {
    return fail(display(why));
  }
  print_record(stdout, r, args.has("--json") ? Format::kJson : Format::kText);
  return kExitOk;
}

}  // namespace kora::cli
