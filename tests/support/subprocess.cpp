#include "subprocess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace kora::test {
namespace {

int remaining_ms(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

std::unique_ptr<Subprocess> Subprocess::start(const std::vector<std::string>& argv, std::string* why) {
  int in_pipe[2];
  int out_pipe[2];
  if (argv.empty() || ::pipe2(in_pipe, O_CLOEXEC) != 0) {
    *why = "pipe";
    return nullptr;
  }
  if (::pipe2(out_pipe, O_CLOEXEC) != 0) {
    ::close(in_pipe[0]);
    ::close(in_pipe[1]);
    *why = "pipe";
    return nullptr;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in_pipe[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDERR_FILENO);
  std::vector<char*> args;
  for (const auto& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);
  std::unique_ptr<Subprocess> child(new Subprocess);
  const int rc = ::posix_spawnp(&child->pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in_pipe[0]);
  ::close(out_pipe[1]);
  child->in_ = in_pipe[1];
  child->out_ = out_pipe[0];
  if (rc != 0) {
    child->reaped_ = true;
    *why = std::string("spawn ") + argv[0] + ": " + std::strerror(rc);
    return nullptr;
  }
  return child;
}

Subprocess::~Subprocess() {
  if (!reaped_) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  if (in_ >= 0) {
    ::close(in_);
  }
  if (out_ >= 0) {
    ::close(out_);
  }
}

bool Subprocess::read_some(std::chrono::steady_clock::time_point deadline) {
  if (out_ < 0) {
    return false;
  }
  pollfd pfd{out_, POLLIN, 0};
  const int ready = ::poll(&pfd, 1, remaining_ms(deadline));
  if (ready < 0 && errno == EINTR) {
    return true;
  }
  if (ready <= 0) {
    return false;
  }
  char buf[4096];
  const ssize_t n = ::read(out_, buf, sizeof buf);
  if (n < 0 && errno == EINTR) {
    return true;
  }
  if (n <= 0) {
    ::close(out_);
    out_ = -1;
    return false;
  }
  output_.append(buf, static_cast<size_t>(n));
  return true;
}

std::string Subprocess::wait_for_line(const std::string& prefix, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    size_t end;
    while ((end = output_.find('\n', scanned_)) != std::string::npos) {
      std::string line = output_.substr(scanned_, end - scanned_);
      scanned_ = end + 1;
      if (!line.empty() && line.back() == '\r') {
        line.pop_back();
      }
      if (line.compare(0, prefix.size(), prefix) == 0) {
        return line;
      }
    }
    if (!read_some(deadline)) {
      return "";
    }
  }
}

int Subprocess::wait_exit(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (read_some(deadline)) {
  }
  if (out_ >= 0 || reaped_) {
    return -1;  // deadline passed with the output still open; the destructor kills the child
  }
  // The output closed: the child is ending, so waiting for it is short.
  int status = 0;
  if (::waitpid(pid_, &status, 0) != pid_) {
    return -1;
  }
  reaped_ = true;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Subprocess::write_stdin(const std::string& data) {
  size_t done = 0;
  while (in_ >= 0 && done < data.size()) {
    const ssize_t n = ::write(in_, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      break;
    }
    done += static_cast<size_t>(n);
  }
}

void Subprocess::close_stdin() {
  if (in_ >= 0) {
    ::close(in_);
    in_ = -1;
  }
}

int accept_port(const std::string& line) {
  const std::string prefix = "ACCEPT 127.0.0.1:";
  if (line.compare(0, prefix.size(), prefix) != 0) {
    return -1;
  }
  try {
    return std::stoi(line.substr(prefix.size()));
  } catch (...) {
    return -1;
  }
}

int connect_loopback(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -1;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

int listen_loopback(int* port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -1;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 4) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    ::close(fd);
    return -1;
  }
  *port = ntohs(addr.sin_port);
  return fd;
}

}  // namespace kora::test
