// serve: accept TLS connections with a certificate loaded from the store.
#include <openssl/ssl.h>

#include <cstdio>
#include <string>

#include "cli_keys.h"
#include "cli_names.h"
#include "cli_net.h"
#include "cli_report.h"
#include "cli_session.h"
#include "cli_stored.h"
#include "commands.h"

namespace kora::cli {
namespace {

// How long a client's handshake may take, unless --timeout says otherwise.
constexpr int kDefaultHandshakeSeconds = 10;
constexpr int kMaxHandshakeSeconds = 3600;

// Checks the name given with the option of `type` and loads that credential.
int load_option(const Args& args, kora_Net_SSL_Cert_Type_t type, ssl_obj_hdl_t hdl) {
  const std::string name = args.value(kind_option(type));
  if (const std::string refusal = name_refusal(name); !refusal.empty()) {
    return usage_error(refusal);
  }
  return load_credential(hdl, type, name);
}

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
  if (args.has("--timeout") && !parse_number(args.value("--timeout"), 1, kMaxHandshakeSeconds, &timeout)) {
    return usage_error("--timeout '" + args.value("--timeout") + "' is not a number of seconds from 1 to " +
                       std::to_string(kMaxHandshakeSeconds));
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
  if (const int rc = load_option(args, KORA_NET_SSL_CERTIFICATE_E, obj.hdl()); rc != kExitOk) {
    return rc;
  }
  const HandshakeReport report{"a client", "client", args.has("--ca"), "not requested (no --ca given)",
                               false};
  if (report.verified) {
    if (const int rc = load_option(args, KORA_NET_SSL_CA_LIST_E, obj.hdl()); rc != kExitOk) {
      return rc;
    }
    if (ssl_obj_set_verify(obj.hdl(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT) != 0) {
      return fail("requiring client certificates failed");
    }
  }
  int bound = 0;
  const std::string address = args.has("--bind") ? args.value("--bind") : kLoopbackAddress;
  Socket listener = tcp_listen(address, port, &bound, &why);
  if (listener.fd() < 0) {
    return fail(why);
  }
  std::printf("listening on port %d at %s with certificate '%s'%s\n", bound, address.c_str(),
              args.value("--cert").c_str(), report.verified ? ", client certificates required" : "");
  (void)std::fflush(stdout);

  int failures = 0;
  for (;;) {
    Socket client = tcp_accept(listener, &why);
    if (client.fd() < 0) {
      return fail(why);
    }
    diag_clear();
    set_io_timeout(client.fd(), timeout, false);
    Handshake h;
    {
      // Clients are served one at a time: one that stalls its handshake is cut off.
      const SocketDeadline deadline(client.fd(), timeout);
      h = handshake(obj.hdl(), client.fd());
    }
    if (h.status != 0) {
      ++failures;
      (void)fail_store(failure_line(report, h.info), h.status);
    } else {
      print_connected("client connected", report, h.info);
      answer_client(obj.hdl(), std::string("hello from kora-ssl-store serve (") + h.info.protocol + ", " +
                                   h.info.cipher + ")");
      (void)ssl_conn_shutdown(obj.hdl());
    }
    (void)ssl_conn_close(obj.hdl());
    if (args.has("--once")) {
      return failures == 0 ? kExitOk : kExitFailed;
    }
  }
}

}  // namespace kora::cli
