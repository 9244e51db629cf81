// connect: a client handshake with credentials loaded from the store.
#include <openssl/ssl.h>

#include <cstdio>
#include <string>

#include "cli_keys.h"
#include "cli_names.h"
#include "cli_report.h"
#include "cli_tls.h"
#include "commands.h"

namespace kora::cli {
int run_connect(const Args& args) {
  if (args.positional.size() != 1) {
    return usage_error("connect needs HOST:PORT");
  }
  std::string host;
  std::string port;
  std::string why;
  if (!split_host_port(args.positional[0], &host, &port, &why)) {
    return usage_error(why);
  }
  if (args.has("--tls1.2") && args.has("--tls1.3")) {
    return usage_error("--tls1.2 and --tls1.3 exclude each other");
  }
  const bool psk = args.has("--psk");
  if (psk && (args.has("--cert") || args.has("--ca"))) {
    return usage_error(
        "--psk cannot be combined with --cert or --ca: one SSL object holds either a PSK table or certificates");
  }
  for (const char* option : {"--cert", "--ca", "--psk"}) {
    if (args.has(option)) {
      if (const std::string refusal = name_refusal(args.value(option)); !refusal.empty()) {
        return usage_error(std::string(option) + ": " + refusal);
      }
    }
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }

  SslObject obj;
  if (const int rc = obj.create(SSL_OBJ_ROLE_CLIENT); rc != 0) {
    return fail_store("creating a client SSL object failed", rc);
  }
  const int version = args.has("--tls1.2") ? TLS1_2_VERSION : args.has("--tls1.3") ? TLS1_3_VERSION : 0;
  if (version != 0 && ssl_obj_set_protocol_bounds(obj.hdl(), version, version) != 0) {
    return fail("setting the protocol version failed");
  }
  const bool verify = args.has("--ca");
  if (ssl_obj_set_verify(obj.hdl(), verify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE) != 0) {
    return fail("setting the verification mode failed");
  }
  // A host name is sent as server name and, when verifying, must be in the certificate.
  if (!is_ip_literal(host) && ssl_obj_set_server_name(obj.hdl(), host.c_str()) != 0) {
    return fail("setting the server name '" + host + "' failed");
  }
  if (psk && ssl_obj_set_ciphers(obj.hdl(), kPskTls12Ciphers, kPskTls13Suites) != 0) {
    return fail("selecting the PSK cipher suites failed");
  }
  if (args.has("--cert")) {
    if (const int rc = load_credential(obj.hdl(), KORA_NET_SSL_CERTIFICATE_E, args.value("--cert"));
        rc != kExitOk) {
      return rc;
    }
  }
  if (args.has("--ca")) {
    if (const int rc = load_credential(obj.hdl(), KORA_NET_SSL_CA_LIST_E, args.value("--ca"));
        rc != kExitOk) {
      return rc;
    }
  }
  if (psk) {
    if (const int rc = load_credential(obj.hdl(), KORA_NET_SSL_PSK_TABLE_E, args.value("--psk"));
        rc != kExitOk) {
      return rc;
    }
  }

  Socket sock = tcp_connect(host, port, &why);
  if (sock.fd() < 0) {
    return fail(why);
  }
  diag_clear();
  const int rc = ssl_conn_open(obj.hdl(), sock.fd());
  ssl_conn_info_t info{};
  const bool have_info = ssl_conn_get_info(obj.hdl(), &info) == 0;
  std::string verification = psk      ? "not applicable (PSK)"
                             : verify ? verify_phrase(info.verify_result)
                                      : "not checked (no --ca given)";
  if (rc != 0) {
    std::string line = "TLS handshake with " + args.positional[0] + " failed";
    if (have_info && verify && info.verify_result != X509_V_OK) {
      line += ": server certificate " + verification;
    }
    const int result = fail_store(line, rc);
    (void)ssl_conn_close(obj.hdl());
    return result;
  }
  std::printf("connected to %s\n", args.positional[0].c_str());
  print_conn_info(stdout, info, verification);
  (void)ssl_conn_shutdown(obj.hdl());
  (void)ssl_conn_close(obj.hdl());
  return kExitOk;
}

}  // namespace kora::cli
