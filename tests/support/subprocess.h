// A child process with its stdin and its merged stdout/stderr on pipes, for tests that talk to
// command-line tools. Every wait has a deadline; nothing sleeps. The destructor kills a child
// that is still running.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace kora::test {

class Subprocess {
 public:
  // Starts argv[0] (looked up in PATH). Null and *why set when it cannot be started.
  static std::unique_ptr<Subprocess> start(const std::vector<std::string>& argv, std::string* why);
  ~Subprocess();
  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;

  // Reads output until a whole line beginning with `prefix` has arrived and returns it (without
  // the line break); "" when the output ends or the deadline passes first.
  std::string wait_for_line(const std::string& prefix, std::chrono::milliseconds timeout);
  // Reads the output to its end and reaps the child: its exit code, 128 + signal when killed by
  // one, or -1 when the deadline passed (the child is then killed).
  int wait_exit(std::chrono::milliseconds timeout);
  void write_stdin(const std::string& data);
  void close_stdin();
  // Everything the child has written so far.
  const std::string& output() const { return output_; }

 private:
  Subprocess() = default;
  // Reads what is available within the deadline; false at end of output or deadline.
  bool read_some(std::chrono::steady_clock::time_point deadline);

  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  bool reaped_ = false;
  std::string output_;
  size_t scanned_ = 0;  // start of the first line wait_for_line has not looked at
};

// The port of an "ACCEPT 127.0.0.1:PORT" line, or -1.
int accept_port(const std::string& line);
// A blocking TCP socket connected to 127.0.0.1:port, or -1.
int connect_loopback(int port);
// A listening TCP socket on 127.0.0.1 with a port chosen by the system; *port receives it. -1 on failure.
int listen_loopback(int* port);

}  // namespace kora::test
