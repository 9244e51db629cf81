// serve: accept TLS connections with a certificate loaded from the store.
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "cli_keys.h"
#include "cli_report.h"
#include "cli_tls.h"
#include "commands.h"

namespace kora::cli {
namespace {

constexpr int kDefaultHandshakeSeconds = 10;

// Clients are served one at a time: one that sends nothing, or a byte now and then, gets its
// socket shut down once its handshake has taken `seconds`, and the next client is served.
class HandshakeDeadline {
 public:
  HandshakeDeadline(int fd, int seconds)
      : thread_([this, fd, seconds] {
          std::unique_lock<std::mutex> lock(mutex_);
          if (!over_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; })) {
            (void)::shutdown(fd, SHUT_RDWR);
          }
        }) {}
  ~HandshakeDeadline() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    over_.notify_one();
    thread_.join();
  }
  HandshakeDeadline(const HandshakeDeadline&) = delete;
  HandshakeDeadline& operator=(const HandshakeDeadline&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable over_;
  bool done_ = false;
  std::thread thread_;  // last: starts once the members it uses exist
};

}  // namespace

int run_serve(const Args& args) {
  if (args.positional.size() != 1) {
    return usage_error("serve needs PORT");
  }
  std::string why;
  int port = 0;
  if (!parse_port(args.positional[0], &port, &why)) {
    return usage_error(why);
  }
  int timeout = kDefaultHandshakeSeconds;
  if (args.has("--timeout") && !parse_number(args.value("--timeout"), 1, 3600, &timeout)) {
    return usage_error("--timeout '" + args.value("--timeout") +
                       "' is not a number of seconds from 1 to 3600");
  }
  if (!args.has("--cert")) {
    return usage_error("serve needs --cert NAME: a server presents a certificate");
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  SslObject obj;
  if (const int rc = obj.create(SSL_OBJ_ROLE_SERVER); rc != 0) {
    return fail_store("creating a server SSL object failed", rc);
  }
  if (const int rc = load_credential(obj.hdl(), KORA_NET_SSL_CERTIFICATE_E, args.value("--cert"));
      rc != kExitOk) {
    return rc;
  }
  const bool verify = args.has("--ca");
  if (verify) {
    if (const int rc = load_credential(obj.hdl(), KORA_NET_SSL_CA_LIST_E, args.value("--ca"));
        rc != kExitOk) {
      return rc;
    }
    if (ssl_obj_set_verify(obj.hdl(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT) != 0) {
      return fail("requiring client certificates failed");
    }
  }
  int bound = 0;
  const std::string address = args.has("--bind") ? args.value("--bind") : "127.0.0.1";
  Socket listener = tcp_listen(address, port, &bound, &why);
  if (listener.fd() < 0) {
    return fail(why);
  }
  std::printf("listening on port %d at %s with certificate '%s'%s\n", bound, address.c_str(),
              args.value("--cert").c_str(), verify ? ", client certificates required" : "");
  (void)std::fflush(stdout);

  int failures = 0;
  for (;;) {
    Socket client(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    if (client.fd() < 0) {
      if (errno == EINTR) {
        continue;
      }
      return fail(std::string("accept failed: ") + std::strerror(errno));
    }
    diag_clear();
    const timeval io_limit{timeout, 0};
    (void)::setsockopt(client.fd(), SOL_SOCKET, SO_SNDTIMEO, &io_limit, sizeof io_limit);
    int rc = 0;
    {
      const HandshakeDeadline deadline(client.fd(), timeout);
      rc = ssl_conn_open(obj.hdl(), client.fd());
    }
    ssl_conn_info_t info{};
    const bool have_info = ssl_conn_get_info(obj.hdl(), &info) == 0;
    const std::string verification =
        verify ? verify_phrase(info.verify_result) : "not requested (no --ca given)";
    if (rc != 0) {
      ++failures;
      std::string line = "TLS handshake with a client failed";
      if (have_info && verify && info.verify_result != X509_V_OK) {
        line += ": client certificate " + verification;
      }
      (void)fail_store(line, rc);
    } else {
      std::printf("client connected\n");
      print_conn_info(stdout, info, verification);
      (void)std::fflush(stdout);
      answer_client(obj.hdl(), std::string("hello from kora-ssl-store serve (") + info.protocol + ", " +
                                   info.cipher + ")");
      (void)ssl_conn_shutdown(obj.hdl());
    }
    (void)ssl_conn_close(obj.hdl());
    if (args.has("--once")) {
      return failures == 0 ? kExitOk : kExitFailed;
    }
  }
}

}  // namespace kora::cli
