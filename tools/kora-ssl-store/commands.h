// The subcommands of kora-ssl-store and the table that names them.
#pragma once

#include <string>
#include <vector>

#include "cli_args.h"

namespace kora::cli {

// Exit codes: 0 done, 1 the operation failed, 2 the command line was refused.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

struct Command {
  const char* name;
  const char* synopsis;  // one line for the command list
  std::string usage;     // full --help text
  OptionSpec options;    // which options take a value and which are plain flags
  int (*run)(const Args& args);
};

// All commands, in the order `--help` lists them.
const std::vector<Command>& command_table();
const Command* find_command(const std::string& name);
void print_overview(FILE* out);
// "kora-ssl-store 0.1.0 (OpenSSL 3.0.x ...)"
void print_version(FILE* out);

int run_init(const Args& args);
int run_put(const Args& args);
int run_ls(const Args& args);
int run_rm(const Args& args);
int run_der2pem(const Args& args);
int run_connect(const Args& args);
int run_serve(const Args& args);
int run_demo(const Args& args);
int run_show(const Args& args);
int run_csr(const Args& args);

// put cert, called by run_put with the checked NAME.
int put_cert(const Args& args, const std::string& name);

}  // namespace kora::cli
