// The table of subcommands: name, one-line summary, help text, options, entry point.
#include <openssl/crypto.h>

#include <cstdio>

#include "cli_names.h"
#include "commands.h"
#include "ssl_store_layout.h"

namespace kora::cli {

const std::vector<Command>& command_table() {
  static const std::vector<Command> table = {
      {"init",
       "create the store tree and provision its key material",
       "usage: kora-ssl-store init [--force-new-key] [-v]\n"
       "\n"
       "Creates the store's directory tree under " KORA_STORE_ROOT " and, on first use,\n"
       "has the key service make the key blob and nonce that seal every credential. Run it\n"
       "again at any time: existing directories and key material are kept.\n"
       "The data root " KORA_STORE_DATA_ROOT " must exist.\n"
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
       "usage: kora-ssl-store put cert NAME --cert FILE [--key FILE] [--pass SOURCE]\n"
       "       kora-ssl-store put cert NAME --p12 FILE [--pass SOURCE]\n"
       "       kora-ssl-store put ca   NAME FILE\n"
       "       kora-ssl-store put di   NAME FILE\n"
       "       kora-ssl-store put psk  NAME FILE\n"
       "\n"
       "Seals the file(s) and stores them under NAME, replacing an earlier credential of\n"
       "that kind and name. FILE \"-\" reads standard input.\n"
       "  cert  a certificate (PEM or DER) and its private key. A PEM file may hold the\n"
       "        leaf followed by its intermediates: the whole chain is stored and sent in\n"
       "        handshakes. The key may be PKCS#8 or traditional, PEM or DER, RSA, EC,\n"
       "        Ed25519 or Ed448, encrypted or not; it must belong to the first\n"
       "        certificate. Without --key the certificate is attached to the key that\n"
       "        'csr NAME' stored. --p12 takes certificate, key and chain from PKCS#12.\n"
       "        --pass pass:TEXT|env:VAR|file:PATH|stdin gives the pass phrase of an\n"
       "        encrypted key or PKCS#12 file; without it a terminal prompts.\n"
       "  ca    a PEM file of one or more CA certificates\n"
       "  di    a device-identity certificate (PEM or DER)\n"
       "  psk   a PSK table as text: one IDENTITY:HEXKEY per line (|IDENTITY|:HEXKEY for\n"
       "        an identity holding \":\"); blank lines and lines starting with # are\n"
       "        skipped. Identities of 1 to 256 bytes, unique; keys of 1 to 256 bytes.\n"
       "NAME: 1 to 63 printable ASCII characters, without \"/\", and not \".\" or \"..\".\n",
       {{"--cert", "--key", "--p12", "--pass"}, {}},
       &run_put},
      {"ls",
       "list the stored names of one kind or of all kinds",
       "usage: kora-ssl-store ls [-l] [--json] [" + kind_words("|", "|") +
           "]\n"
           "\n"
           "Prints one line per stored credential, sorted by kind and name: KIND NAME.\n"
           "-l adds the details 'show' prints: for a certificate its subject, issuer,\n"
           "not-after date (EXPIRED, or EXPIRES SOON within 30 days), key type and size,\n"
           "SHA-256 fingerprint and chain length; for a PSK table its identities (never\n"
           "the keys). A certificate name that 'csr' made and that waits for its\n"
           "certificate is listed too. --json prints a JSON array instead.\n",
       {{}, {"-l", "--json"}},
       &run_ls},
      {"show",
       "print one stored credential's details",
       "usage: kora-ssl-store show [--json] KIND NAME\n"
       "\n"
       "Prints what 'ls -l' prints for one credential, or a JSON object with --json.\n",
       {{}, {"--json"}},
       &run_show},
      {"csr",
       "make a key on the device and a certificate request for it",
       "usage: kora-ssl-store csr NAME --subject /CN=NAME[/O=ORG...] [--key TYPE]\n"
       "                          [--san DNS:HOST,IP:ADDR...] [--out FILE] [--force]\n"
       "\n"
       "Makes a private key in memory (TYPE ec:P-256 (default), ec:P-384, rsa:3072 or\n"
       "ed25519), seals it into the store under certificate name NAME and writes a PEM\n"
       "certificate request to FILE or standard output. The key is never written in the\n"
       "clear. Once the certificate is issued, attach it with\n"
       "'kora-ssl-store put cert NAME --cert FILE'. --force replaces a credential of\n"
       "that name and an existing FILE.\n",
       {{"--subject", "--key", "--san", "--out"}, {"--force"}},
       &run_csr},
      {"rm",
       "remove a stored credential (a certificate with its key and its sessions)",
       "usage: kora-ssl-store rm KIND NAME\n"
       "\n"
       "Removes the credential; a certificate goes together with its private key. TLS\n"
       "session files bound to the name are removed too. KIND is " +
           kind_words(", ", " or ") + ".\n",
       {},
       &run_rm},
      {"der2pem",
       "convert a DER certificate to PEM",
       "usage: kora-ssl-store der2pem IN [OUT] [--force]\n"
       "\n"
       "Writes the PEM text of the DER certificate in IN to OUT, or to standard output.\n"
       "OUT is made new (readable by this user only) and renamed into place; an existing\n"
       "OUT is replaced only with --force. Needs no store.\n",
       {{}, {"--force"}},
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
       "usage: kora-ssl-store serve PORT --cert NAME [--ca NAME] [--once] [--bind ADDR]\n"
       "                            [--timeout SECONDS]\n"
       "\n"
       "Listens on PORT, loads the named certificate and key onto a server SSL object (with\n"
       "the chain stored after it) and prints the outcome of each handshake. Each client then\n"
       "gets one line of text (an HTTP response when it sent an HTTP request, so curl shows\n"
       "it). --ca requires and verifies a client certificate. --once stops after the first\n"
       "connection.\n"
       "--bind ADDR listens on the IPv4 address ADDR (default 127.0.0.1; 0.0.0.0 for all).\n"
       "Clients are served one at a time; a handshake that takes longer than --timeout\n"
       "SECONDS (default 10) is cut off so that the next client is served.\n",
       {{"--cert", "--ca", "--bind", "--timeout"}, {"--once"}},
       &run_serve},
      {"demo",
       "end-to-end demonstration on the device's store",
       "usage: kora-ssl-store demo [-v]\n"
       "\n"
       "Initialises the store at " KORA_STORE_DATA_ROOT ", makes a throw-away CA, server, client\n"
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
      "      --version  the tool's version and the OpenSSL it runs on\n"
      "\n"
      "Every command except init, der2pem and demo needs a store that 'init' prepared.\n"
      "Exit status: 0 done, 1 the operation failed, 2 the command line was refused.\n",
      out);
}

void print_version(FILE* out) {
  (void)std::fprintf(out, "kora-ssl-store %s (%s)\n", KORA_VERSION, OpenSSL_version(OPENSSL_VERSION));
}

}  // namespace kora::cli
