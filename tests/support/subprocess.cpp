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

#include <algorithm>
#include <cerrno>
#include <cstring>

extern char** environ;

namespace kora::test {

std::unique_ptr<Subprocess> Subprocess::start(const std::vector<std::string>& argv, std::string* why,
                                              const std::string& err_path) {
  int in[2], out[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
    *why = "pipe";
    return nullptr;  // a descriptor may leak here; the test fails anyway
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  if (err_path.empty()) {
    posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
  }
  std::vector<char*> args;
  for (const auto& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);
  // A group of its own, so that killing it also ends what it started (a peer under "timeout").
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attr, 0);
  std::unique_ptr<Subprocess> child(new Subprocess);
  const int rc = ::posix_spawnp(&child->pid_, args[0], &actions, &attr, args.data(), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  child->in_ = in[1];
  child->out_ = out[0];
  child->reaped_ = rc != 0;
  if (rc != 0) {
    *why = "spawn " + argv[0] + ": " + std::strerror(rc);
    return nullptr;
  }
  return child;
}

Subprocess::~Subprocess() {
  if (!reaped_) {
    ::kill(-pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  close_stdin();
  if (out_ >= 0) {
    ::close(out_);
  }
}

bool Subprocess::read_some(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  pollfd pfd{out_, POLLIN, 0};
  const int ready = out_ < 0 ? 0 : ::poll(&pfd, 1, static_cast<int>(std::max<long>(left.count(), 0)));
  if (ready <= 0) {
    return ready < 0 && errno == EINTR;
  }
  char buf[4096];
  const ssize_t n = ::read(out_, buf, sizeof buf);
  if (n > 0) {
    output_.append(buf, static_cast<size_t>(n));
  } else if (n == 0 || errno != EINTR) {
    ::close(out_);
    out_ = -1;
    return false;
  }
  return true;
}

std::string Subprocess::wait_for_line(const std::string& text, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  do {
    for (size_t end; (end = output_.find('\n', scanned_)) != std::string::npos;) {
      std::string line = output_.substr(scanned_, end - scanned_);
      scanned_ = end + 1;
      if (line.find(text) != std::string::npos) {
        return line;
      }
    }
  } while (read_some(deadline));
  return "";
}

int Subprocess::wait_exit(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (read_some(deadline)) {
  }
  int status = 0;
  // With the output closed the child is ending, so waiting for it is short.
  if (out_ >= 0 || reaped_ || ::waitpid(pid_, &status, 0) != pid_) {
    return -1;
  }
  reaped_ = true;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Subprocess::close_stdin() {
  if (in_ >= 0) {
    ::close(in_);
    in_ = -1;
  }
}

namespace {

int loopback_socket(int* port, bool listening) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(*port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* sa = reinterpret_cast<sockaddr*>(&addr);
  socklen_t len = sizeof addr;
  const bool ok = fd >= 0 && (listening ? ::bind(fd, sa, len) == 0 && ::listen(fd, 4) == 0 &&
                                              ::getsockname(fd, sa, &len) == 0
                                        : ::connect(fd, sa, len) == 0);
  if (!ok && fd >= 0) {
    ::close(fd);
  }
  *port = ntohs(addr.sin_port);
  return ok ? fd : -1;
}

}  // namespace

int connect_loopback(int port) { return loopback_socket(&port, false); }

int listen_loopback(int* port) {
  *port = 0;
  return loopback_socket(port, true);
}

}  // namespace kora::test
