// A child process with its stdin and stdout on pipes, for tests that talk to command-line tools.
// Every wait has a deadline; the destructor kills a child still running, with its process group.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace kora::test {

class Subprocess {
 public:
  // Starts argv[0] (looked up in PATH). Its stderr joins stdout, or goes to `err_path` when one is
  // given. Null, with *why set, when it cannot be started.
  static std::unique_ptr<Subprocess> start(const std::vector<std::string>& argv, std::string* why,
                                           const std::string& err_path = "");
  ~Subprocess();
  // The next output line holding `text`; "" when the output ends or the deadline passes.
  std::string wait_for_line(const std::string& text, std::chrono::milliseconds timeout);
  // Reads the output to its end and reaps the child: its exit code, 128 + signal, or -1 on timeout.
  int wait_exit(std::chrono::milliseconds timeout);
  void close_stdin();
  const std::string& output() const { return output_; }
  pid_t pid() const { return pid_; }

 private:
  Subprocess() = default;
  bool read_some(std::chrono::steady_clock::time_point deadline);  // false at end or deadline

  pid_t pid_ = -1;
  int in_ = -1, out_ = -1;
  bool reaped_ = false;
  std::string output_;
  size_t scanned_ = 0;  // start of the first line wait_for_line has not looked at
};

// Runs `body` in a forked child and returns its exit code (the low byte of what `body` returns:
// a store status of -1 comes back as 255), or -1 when the child did not exit.
int in_child(const std::function<int()>& body);

// A TCP socket on 127.0.0.1: connected to `port`, or listening at a port of the system's choosing
// stored in *port. -1 on failure.
int connect_loopback(int port);
int listen_loopback(int* port);

// The blank-separated words of `command`.
inline std::vector<std::string> words_of(const std::string& command) {
  std::istringstream words(command);
  return {std::istream_iterator<std::string>(words), {}};
}

#ifdef KORA_CLI_PATH
#ifndef KORA_CLI_LAUNCHER
#define KORA_CLI_LAUNCHER ""  // a native tool runs directly
#endif
// The tool's command line for the words of `command`; a cross-built tool runs under the emulator.
// Neither path has a blank in it.
inline std::vector<std::string> cli_argv(const std::string& command) {
  return words_of(KORA_CLI_LAUNCHER " " KORA_CLI_PATH " " + command);
}
#endif

}  // namespace kora::test
