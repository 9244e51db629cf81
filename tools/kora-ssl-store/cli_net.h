// TCP for connect, serve and the demo: host:port words, sockets, listening and accepting,
// and the time a client may take.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace kora::cli {

// Where serve listens unless told otherwise, and where the demo's handshakes meet.
inline constexpr const char* kLoopbackAddress = "127.0.0.1";

// A socket descriptor, closed when this goes.
class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  ~Socket();
  Socket(Socket&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// A decimal port number from 1 to 65535. False with the reason in *why.
bool parse_port(const std::string& text, int* port, std::string* why);
// Splits "host:port" or "[v6addr]:port". False with the reason in *why.
bool split_host_port(const std::string& text, std::string* host, std::string* port, std::string* why);
// A TCP connection to host:port; an invalid Socket and the reason in *why on failure.
Socket tcp_connect(const std::string& host, const std::string& port, std::string* why);
// A listening TCP socket on `address` ("0.0.0.0", "127.0.0.1") and `port` (0: any free
// port); *bound_port receives the port. Invalid Socket and *why on failure.
Socket tcp_listen(const std::string& address, int port, int* bound_port, std::string* why);
// The next connection on `listener`, waiting through signals. An invalid Socket and *why
// when accepting fails.
Socket tcp_accept(const Socket& listener, std::string* why);

// Reads and writes on `fd` that stall for `seconds` fail instead of blocking on.
void set_io_timeout(int fd, int seconds, bool reads_too);

// Shuts the socket down unless this goes within `seconds`: a peer that sends nothing, or a
// byte now and then, cannot hold a handshake past it.
class SocketDeadline {
 public:
  SocketDeadline(int fd, int seconds);
  ~SocketDeadline();
  SocketDeadline(const SocketDeadline&) = delete;
  SocketDeadline& operator=(const SocketDeadline&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable over_;
  bool done_ = false;
  std::thread thread_;  // last: starts once the members it uses exist
};

}  // namespace kora::cli
