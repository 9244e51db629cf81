// Sockets: host:port words, connecting, listening, accepting and deadlines.
#include "cli_net.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>

#include "cli_args.h"

namespace kora::cli {
namespace {

constexpr int kMaxPort = 65535;    // ports are 16-bit, 0 is not one a user names
constexpr int kListenBacklog = 8;  // clients are served one at a time; a few may queue

}  // namespace

Socket::~Socket() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

bool parse_port(const std::string& text, int* port, std::string* why) {
  if (!parse_number(text, 1, kMaxPort, port)) {
    *why = "port '" + text + "' is not a number from 1 to " + std::to_string(kMaxPort);
    return false;
  }
  return true;
}

bool split_host_port(const std::string& text, std::string* host, std::string* port, std::string* why) {
  size_t colon = std::string::npos;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
      *why = "'" + text + "' is not [ADDRESS]:PORT";
      return false;
    }
    *host = text.substr(1, close - 1);
    colon = close + 1;
  } else {
    colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
      *why = "'" + text + "' is not HOST:PORT";
      return false;
    }
    *host = text.substr(0, colon);
  }
  *port = text.substr(colon + 1);
  int number = 0;
  return parse_port(*port, &number, why);
}

Socket tcp_connect(const std::string& host, const std::string& port, std::string* why) {
  struct addrinfo hints {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* list = nullptr;
  const int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
  if (rc != 0) {
    *why = "cannot resolve " + host + ": " + gai_strerror(rc);
    return Socket();
  }
  std::string last = "no address";
  for (const struct addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    Socket s(::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol));
    if (s.fd() < 0) {
      last = std::strerror(errno);
      continue;
    }
    if (::connect(s.fd(), ai->ai_addr, ai->ai_addrlen) == 0) {
      freeaddrinfo(list);
      return s;
    }
    last = std::strerror(errno);
  }
  freeaddrinfo(list);
  *why = "cannot connect to " + host + ":" + port + ": " + last;
  return Socket();
}

Socket tcp_listen(const std::string& address, int port, int* bound_port, std::string* why) {
  Socket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (s.fd() < 0) {
    *why = std::string("cannot create a socket: ") + std::strerror(errno);
    return Socket();
  }
  const int one = 1;
  (void)::setsockopt(s.fd(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  struct sockaddr_in sa {};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, address.c_str(), &sa.sin_addr) != 1) {
    *why = "'" + address + "' is not an IPv4 address";
    return Socket();
  }
  if (::bind(s.fd(), reinterpret_cast<const struct sockaddr*>(&sa), sizeof(sa)) != 0 ||
      ::listen(s.fd(), kListenBacklog) != 0) {
    *why = "cannot listen on " + address + ":" + std::to_string(port) + ": " + std::strerror(errno);
    return Socket();
  }
  socklen_t len = sizeof(sa);
  if (::getsockname(s.fd(), reinterpret_cast<struct sockaddr*>(&sa), &len) != 0) {
    *why = std::string("cannot read the bound port: ") + std::strerror(errno);
    return Socket();
  }
  *bound_port = ntohs(sa.sin_port);
  return s;
}

Socket tcp_accept(const Socket& listener, std::string* why) {
  for (;;) {
    Socket client(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    if (client.fd() >= 0) {
      return client;
    }
    if (errno != EINTR) {
      *why = std::string("accept failed: ") + std::strerror(errno);
      return Socket();
    }
  }
}

void set_io_timeout(int fd, int seconds, bool reads_too) {
  const timeval limit{seconds, 0};
  if (reads_too) {
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

SocketDeadline::SocketDeadline(int fd, int seconds)
    : thread_([this, fd, seconds] {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!over_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; })) {
          (void)::shutdown(fd, SHUT_RDWR);
        }
      }) {}

SocketDeadline::~SocketDeadline() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
  }
  over_.notify_one();
  thread_.join();
}

}  // namespace kora::cli
