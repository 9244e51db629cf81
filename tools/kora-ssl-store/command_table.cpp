// The table of subcommands: name, one-line summary, help text, options, entry point.
#include <cstdio>

#include "commands.h"

namespace kora::cli {

const std::vector<Command>& command_table() {
  static const std::vector<Command> table = {
      {"init",
       "create the store tree and provision its key material",
       "usage: kora-ssl-store init [--force-new-key] [-v]\n"
       "\n"
       "Creates the store's directory tree under /data/data_velto/.ssl/ and, on first use,\n"
       "has the key service make the key blob and nonce that seal every credential. Run it\n"
       "again at any time: existing directories and key material are kept.\n"
       "The data root /data/data_velto/ must exist.\n"
       "It says which root key is used (a file, or a PKCS#11 token key when\n"
       "KORA_KM_PKCS11_URI is set; made when missing) and proves the key material works by\n"
       "sealing and opening a probe. A missing root key is not made again while the store\n"
       "has a key blob.\n"
       "  --force-new-key  start over: new root key and key blob; every stored credential\n"
       "                   becomes unreadable\n",
       {{}, {"--force-new-key"}},
       &run_init},
      {"put",
       "store a certificate with its key, a CA list, a DI certificate or a PSK table",
       "usage: kora-ssl-store put cert NAME --cert FILE --key FILE\n"
       "       kora-ssl-store put ca   NAME FILE\n"
       "       kora-ssl-store put di   NAME FILE\n"
       "       kora-ssl-store put psk  NAME FILE\n"
       "\n"
       "Seals the file(s) and stores them under NAME, replacing an earlier credential of\n"
       "that kind and name.\n"
       "  cert  a certificate (PEM or DER) and its unencrypted private key (PEM or DER);\n"
       "        the key must belong to the certificate\n"
       "  ca    a PEM file of one or more CA certificates\n"
       "  di    a device-identity certificate (PEM or DER)\n"
       "  psk   a PSK table as text: one IDENTITY:HEXKEY per line (|identity| may quote\n"
       "        an identity holding \":\"); keys of 1 to 256 bytes\n"
       "NAME: 1 to 63 characters, without \"/\" or \"..\".\n",
       {{"--cert", "--key"}, {}},
       &run_put},
      {"ls",
       "list the stored names of one kind or of all kinds",
       "usage: kora-ssl-store ls [cert|ca|psk|di]\n"
       "\n"
       "Prints one line per stored credential: KIND NAME. The store lists at most ten\n"
       "names per kind; when a kind holds more, the tool says so.\n",
       {},
       &run_ls},
      {"rm",
       "remove a stored credential (a certificate with its key and its sessions)",
       "usage: kora-ssl-store rm KIND NAME\n"
       "\n"
       "Removes the credential; a certificate goes together with its private key. TLS\n"
       "session files bound to the name are removed too. KIND is cert, ca, psk or di.\n",
       {},
       &run_rm},
      {"der2pem",
       "convert a DER certificate to PEM",
       "usage: kora-ssl-store der2pem IN [OUT]\n"
       "\n"
       "Writes the PEM text of the DER certificate in IN to OUT, or to standard output.\n"
       "Needs no store.\n",
       {},
       &run_der2pem},
      {"connect",
       "TLS handshake to a server with stored credentials",
       "usage: kora-ssl-store connect HOST:PORT [--cert NAME] (--ca NAME | --insecure)\n"
       "                              [--tls1.2|--tls1.3]\n"
       "       kora-ssl-store connect HOST:PORT --psk NAME [--psk-identity ID] [--tls1.2|--tls1.3]\n"
       "\n"
       "Opens a TCP connection, loads the named credentials from the store onto a client\n"
       "SSL object and runs the handshake. Prints the protocol, cipher, peer subject and\n"
       "the verification result.\n"
       "  --ca        verify the server's certificate with a stored CA list; HOST (a name or\n"
       "              an IP address) must be in it\n"
       "  --insecure  do not verify the server (nothing is then verified)\n"
       "  --cert      offer a stored client certificate, with the chain stored after it; under\n"
       "              TLS 1.3 connect waits up to 3 s for the server's verdict on it\n"
       "  --psk       use a stored PSK table (not with --cert, --ca, --insecure). Under TLS 1.2\n"
       "              the server's identity hint chooses the entry, under TLS 1.3 the first\n"
       "              entry is offered; --psk-identity ID chooses the entry instead\n"
       "With TLS 1.3, PSK works only with SHA-256 cipher suites.\n",
       {{"--cert", "--ca", "--psk", "--psk-identity"}, {"--tls1.2", "--tls1.3", "--insecure"}},
       &run_connect},
      {"serve",
       "accept TLS connections with a stored certificate",
       "usage: kora-ssl-store serve PORT --cert NAME [--ca NAME] [--once]\n"
       "\n"
       "Listens on PORT (all addresses), loads the named certificate and key onto a server\n"
       "SSL object (with the chain stored after it) and prints the outcome of each\n"
       "handshake. Each client then gets one line of text (an HTTP response when it sent an\n"
       "HTTP request, so curl shows it). --ca requires and verifies a client certificate.\n"
       "--once stops after the first connection.\n",
       {{"--cert", "--ca"}, {"--once"}},
       &run_serve},
      {"demo",
       "end-to-end demonstration on the device's store",
       "usage: kora-ssl-store demo [-v]\n"
       "\n"
       "Initialises the store at /data/data_velto/, makes a throw-away CA, server, client\n"
       "and device-identity certificate and a PSK table, stores them, loads them onto SSL\n"
       "objects and runs loopback handshakes: certificates with mutual authentication,\n"
       "PSK with TLS 1.2 and 1.3, and a wrong CA that must be refused. Then it lists and\n"
       "removes what it stored and prints a table. The host is left as it was found: what\n"
       "the demo creates (data root, store tree, key material, root key) it removes.\n",
       {},
       &run_demo},
  };
  return table;
}

const Command* find_command(const std::string& name) {
  for (const Command& c : command_table()) {
    if (name == c.name) {
      return &c;
    }
  }
  return nullptr;
}

void print_overview(FILE* out) {
  (void)std::fputs(
      "usage: kora-ssl-store [-v] COMMAND [ARGS...]\n"
      "\n"
      "The device's encrypted TLS credential store, from the command line.\n"
      "\n"
      "commands:\n",
      out);
  for (const Command& c : command_table()) {
    (void)std::fprintf(out, "  %-8s %s\n", c.name, c.synopsis);
  }
  (void)std::fputs(
      "\n"
      "options:\n"
      "  -v, --verbose  show the store's diagnostic messages\n"
      "  -h, --help     this text; 'kora-ssl-store COMMAND --help' for one command\n"
      "\n"
      "Every command except init, der2pem and demo needs a store that 'init' prepared.\n"
      "Exit status: 0 done, 1 the operation failed, 2 the command line was refused.\n",
      out);
}

}  // namespace kora::cli
