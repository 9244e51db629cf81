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

struct Result {
  int code;
  std::string out, err;
};

// Runs `argv` to its end (a hang shows as code -1); its stderr goes to /data/cli.err.
inline Result run(const std::vector<std::string>& argv) {
  std::string why;
  auto child = Subprocess::start(argv, &why, "/data/cli.err");
  EXPECT_NE(child, nullptr) << why;
  const int code = child ? child->wait_exit(std::chrono::seconds(60)) : -1;
  return {code, child ? child->output() : "", slurp("/data/cli.err")};
}

// The tool with the words of `command`.
inline Result cli(const std::string& command) { return run(cli_argv(command)); }

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
