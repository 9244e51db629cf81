// The command-line tool run as a child process, for the tests that use it as a user does.
// KORA_CLI_PATH (and KORA_CLI_LAUNCHER for a cross build) come from the build.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "file_bytes.h"
#include "subprocess.h"

namespace kora::test {

// The tool with the words of `command`; its stderr goes to `err_path`.
inline std::unique_ptr<Subprocess> start(const std::string& command, const std::string& err_path) {
  std::string why;
  auto child = Subprocess::start(cli_argv(command), &why, err_path);
  EXPECT_NE(child, nullptr) << why;
  return child;
}

struct Result {
  int code;
  std::string out, err;
};

inline Result cli(const std::string& command) {
  auto child = start(command, "/data/cli.err");
  const int code = child ? child->wait_exit(std::chrono::seconds(30)) : -1;
  return {code, child ? child->output() : "", slurp("/data/cli.err")};
}

// Runs each command in turn; one that fails fails the case.
inline void cli_all(const std::vector<const char*>& commands) {
  for (const char* command : commands) {
    const Result r = cli(command);
    ASSERT_EQ(r.code, 0) << command << ": " << r.out << r.err;
  }
}

}  // namespace kora::test
