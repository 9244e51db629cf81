#include "cli_report.h"
#include "commands.h"

namespace kora::cli {

int run_serve(const Args& /*args*/) { return fail("not available yet"); }

}  // namespace kora::cli
