// connect: a client handshake with credentials loaded from the store.
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

// How long a TLS 1.3 client waits for the server's verdict on its certificate.
constexpr int kVerdictWaitSeconds = 3;
constexpr int kMsPerSecond = 1000;
// The object layer takes PSK identities of at most this many characters.
constexpr int kMaxPskIdentityLen = 255;
// The kinds of credential a client loads, in that order, each named by its kind option.
constexpr kora_Net_SSL_Cert_Type_t kCredentialKinds[] = {KORA_NET_SSL_CERTIFICATE_E, KORA_NET_SSL_CA_LIST_E,
                                                         KORA_NET_SSL_PSK_TABLE_E};

int check_options(const Args& args, const std::string& host) {
  if (args.has("--tls1.2") && args.has("--tls1.3")) {
    return usage_error("--tls1.2 and --tls1.3 exclude each other");
  }
  const bool psk = args.has("--psk");
  if (psk && (args.has("--cert") || args.has("--ca") || args.has("--insecure"))) {
    return usage_error(
        "--psk cannot be combined with --cert, --ca or --insecure: one SSL object holds either a PSK table or "
        "certificates");
  }
  if (args.has("--psk-identity") && !psk) {
    return usage_error("--psk-identity chooses an entry of the table given with --psk");
  }
  if (!psk && args.has("--ca") == args.has("--insecure")) {
    return usage_error(args.has("--ca") ? "--ca and --insecure exclude each other"
                                        : "give --ca NAME to verify " + host + ", or --insecure to skip it");
  }
  for (const kora_Net_SSL_Cert_Type_t type : kCredentialKinds) {
    std::string option = kind_option(type);
    if (args.has(option)) {
      if (const std::string refusal = name_refusal(args.value(option)); !refusal.empty()) {
        return usage_error(option.append(": ").append(refusal));
      }
    }
  }
  return kExitOk;
}

// The names were checked with the other options, before the store was opened.
int load_credentials(const Args& args, ssl_obj_hdl_t hdl) {
  for (const kora_Net_SSL_Cert_Type_t type : kCredentialKinds) {
    if (const std::string option = kind_option(type); args.has(option)) {
      if (const int rc = load_credential(hdl, type, args.value(option)); rc != kExitOk) {
        return rc;
      }
    }
  }
  return kExitOk;
}

int configure(const Args& args, ssl_obj_hdl_t hdl, const std::string& host) {
  const int version = args.has("--tls1.2") ? TLS1_2_VERSION : args.has("--tls1.3") ? TLS1_3_VERSION : 0;
  if (version != 0 && ssl_obj_set_protocol_bounds(hdl, version, version) != 0) {
    return fail("setting the protocol version failed");
  }
  if (ssl_obj_set_verify(hdl, args.has("--ca") ? SSL_VERIFY_PEER : SSL_VERIFY_NONE) != 0) {
    return fail("setting the verification mode failed");
  }
  // Sent as server name and, when verifying, required in the certificate (an address as an
  // IP address of it).
  if (ssl_obj_set_server_name(hdl, host.c_str()) != 0) {
    return fail("setting the server name '" + host + "' failed");
  }
  if (args.has("--psk") && ssl_obj_set_ciphers(hdl, kPskTls12Ciphers, kPskTls13Suites) != 0) {
    return fail("selecting the PSK cipher suites failed");
  }
  if (args.has("--psk-identity") &&
      ssl_obj_set_psk_identity(hdl, args.value("--psk-identity").c_str()) != 0) {
    return usage_error("--psk-identity '" + args.value("--psk-identity") + "' is longer than " +
                       std::to_string(kMaxPskIdentityLen) + " characters");
  }
  return load_credentials(args, hdl);
}

}  // namespace

int run_connect(const Args& args) {
  if (args.positional.size() != 1) {
    return usage_error("connect needs HOST:PORT");
  }
  const std::string& target = args.positional[0];
  std::string host;
  std::string port;
  std::string why;
  if (!split_host_port(target, &host, &port, &why)) {
    return usage_error(why);
  }
  if (const int rc = check_options(args, host); rc != kExitOk) {
    return rc;
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  SslObject obj;
  if (const int rc = obj.create(SSL_OBJ_ROLE_CLIENT); rc != 0) {
    return fail_store("creating a client SSL object failed", rc);
  }
  if (const int rc = configure(args, obj.hdl(), host); rc != kExitOk) {
    return rc;
  }
  Socket sock = tcp_connect(host, port, &why);
  if (sock.fd() < 0) {
    return fail(why);
  }
  const bool psk = args.has("--psk");
  const HandshakeReport report{
      target, "server", args.has("--ca"),
      psk ? "not applicable (PSK)" : "none: --insecure, the server's certificate was not checked", true};
  diag_clear();
  Handshake h = handshake(obj.hdl(), sock.fd());
  // Under TLS 1.3 the server judges our certificate after our side of the handshake ended.
  const bool tls13 = h.have_info && std::string(h.info.protocol) == "TLSv1.3";
  const int verdict =
      h.status == 0 && tls13 && !psk ? ssl_conn_await_peer(obj.hdl(), kVerdictWaitSeconds * kMsPerSecond) : 0;
  (void)ssl_conn_get_info(obj.hdl(), &h.info);
  if (h.status == 0 && verdict < 0) {
    (void)ssl_conn_close(obj.hdl());
    return fail("the server " + target + " refused our client certificate after the handshake (alert '" +
                h.info.peer_alert + "')");
  }
  if (h.status != 0) {
    std::string line = failure_line(report, h.info);
    if (psk && !args.has("--psk-identity")) {
      line +=
          " (the server's PSK hint chooses the table entry; give --psk-identity ID to choose it yourself)";
    }
    const int result = fail_store(line, h.status);
    (void)ssl_conn_close(obj.hdl());
    return result;
  }
  print_connected("connected to " + target, report, h.info);
  if (verdict == 1) {
    std::printf("  server verdict: none within %d s (the server sent nothing)\n", kVerdictWaitSeconds);
  }
  if (!psk && !report.verified) {
    (void)std::fprintf(stderr, "kora-ssl-store connect: warning: nothing was verified (--insecure)\n");
  }
  (void)ssl_conn_shutdown(obj.hdl());
  (void)ssl_conn_close(obj.hdl());
  return kExitOk;
}

}  // namespace kora::cli
