// A child process with its stdin and stdout on pipes, for tests that talk to command-line tools.
// Every wait has a deadline; the destructor kills a child still running.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
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
  // The next output line beginning with `prefix`; "" when the output ends or the deadline passes.
  std::string wait_for_line(const std::string& prefix, std::chrono::milliseconds timeout);
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

// A TCP socket on 127.0.0.1: connected to `port`, or listening at a port of the system's choosing
// stored in *port. -1 on failure.
int connect_loopback(int port);
int listen_loopback(int* port);

}  // namespace kora::test
