// The command-line tool run as a child process, for the tests that use it as a user does.
// KORA_CLI_PATH (and KORA_CLI_LAUNCHER for a cross build) come from the build.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
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

// A program on a free port: the probing socket stays bound until just before the start, and a
// program that does not reach `ready` (another process took the port) is started again on a new one.
inline std::unique_ptr<Subprocess> start_listening(
    const std::function<std::vector<std::string>(int)>& argv_for, const std::string& ready, int* port) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    ::close(listen_loopback(port));
    std::string why;
    auto child = Subprocess::start(argv_for(*port), &why);
    if (child && !child->wait_for_line(ready, std::chrono::seconds(20)).empty()) {
      return child;
    }
    ADD_FAILURE() << "attempt " << attempt << ": " << why << (child ? child->output() : "");
  }
  return nullptr;
}

// Runs each command in turn; one that fails fails the case.
inline void cli_all(const std::vector<const char*>& commands) {
  for (const char* command : commands) {
    const Result r = cli(command);
    ASSERT_EQ(r.code, 0) << command << ": " << r.out << r.err;
  }
}

}  // namespace kora::test
