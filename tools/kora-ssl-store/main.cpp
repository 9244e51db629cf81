// kora-ssl-store: entry point. Global options, then one subcommand from the table.
#include <sys/prctl.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "cli_report.h"
#include "commands.h"

int main(int argc, char** argv) {
  using namespace kora::cli;
  // Everything the tool or the store creates (the tree, the key blob, the plain scratch file
  // of a CA load, output files) is for this user only.
  (void)::umask(077);
  // Every command may hold a private key, a PSK table or the store's key blob in memory: no
  // core dump, no ptrace by other processes of this user.
  (void)::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  // A peer that hangs up mid-write must give an error, not kill the tool.
  (void)std::signal(SIGPIPE, SIG_IGN);

  std::vector<std::string> words(argv + 1, argv + argc);
  bool verbose = false;
  size_t i = 0;
  for (; i < words.size(); ++i) {
    if (words[i] == "-v" || words[i] == "--verbose") {
      verbose = true;
    } else if (words[i] == "--version") {
      print_version(stdout);
      return kExitOk;
    } else if (words[i] == "-h" || words[i] == "--help") {
      print_overview(stdout);
      return kExitOk;
    } else {
      break;
    }
  }
  if (i == words.size()) {
    print_overview(stderr);
    return kExitUsage;
  }
  const std::string name = words[i];
  const Command* command = find_command(name);
  if (command == nullptr) {
    (void)std::fprintf(stderr, "kora-ssl-store: unknown command '%s' (see 'kora-ssl-store --help')\n",
                       name.c_str());
    return kExitUsage;
  }
  report_set_command(name);

  Args args;
  std::string why;
  const std::vector<std::string> rest(words.begin() + static_cast<long>(i) + 1, words.end());
  if (!parse_args(rest, command->options, &args, &why)) {
    return usage_error(why);
  }
  if (args.help) {
    (void)std::fputs(command->usage.c_str(), stdout);
    return kExitOk;
  }
  args.verbose = args.verbose || verbose;
  diag_install(args.verbose);
  return command->run(args);
}
