#include "subprocess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <glib.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kora::test {

std::unique_ptr<Subprocess> Subprocess::start(const std::vector<std::string>& argv, std::string* why,
                                              const std::string& err_path) {
  const int err =
      err_path.empty() ? -1 : ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  std::vector<char*> args;
  for (const auto& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);
  std::unique_ptr<Subprocess> child(new Subprocess);
  GError* error = nullptr;
  // A group of its own, so that killing it also ends what it started (a peer under "timeout").
  // Without a file for it, stderr joins stdout (GLib has set up both pipes when this runs).
  const bool started = g_spawn_async_with_pipes_and_fds(
      nullptr, args.data(), nullptr,
      static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD),
      [](gpointer merge) {
        ::setpgid(0, 0);
        if (merge != nullptr) {
          ::dup2(STDOUT_FILENO, STDERR_FILENO);
        }
      },
      err_path.empty() ? &child : nullptr, -1, -1, err, nullptr, nullptr, 0, &child->pid_, &child->in_,
      &child->out_, nullptr, &error);
  if (err >= 0) {
    ::close(err);
  }
  child->reaped_ = !started;
  if (!started) {
    *why = "spawn " + argv[0] + ": " + error->message;
    g_error_free(error);
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
  addr.sin_port = htons(static_cast<uint16_t>(listening ? 0 : *port));
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

int listen_loopback(int* port) { return loopback_socket(port, true); }

int in_child(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int code = body();
    std::fflush(nullptr);
    ::_exit(code & 0xff);
  }
  int status = 0;
  return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace kora::test
