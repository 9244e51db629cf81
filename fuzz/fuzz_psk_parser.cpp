// Fuzz target for the PSK text parser. Every input is parsed as a table text and checked
// against a small reference model of the text rules written here, independently of the
// parser: the result and the bytes handed to the store must agree.
//
// The store call is captured instead of performed: this file defines SSL_cert_store, so the
// linker never pulls the store archive's own member for it (that member defines nothing
// else). No file system, root or key service is needed, and each run takes microseconds.
// Each input also runs a second time with the store failing, which must turn into -1.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "kora_net_ssl.h"
#include "msg_diag.h"
#include "ssl_store.h"

namespace {

struct Capture {
  int calls = 0;
  std::string name;
  int type = 0;
  bool priv_key = true;
  std::string table;
  int result = KORA_OK;
};
Capture g_capture;

// What the parser must do with one text: its result, and the table stored (if any).
struct Expected {
  int result;
  std::optional<std::string> table;
};

bool is_hex(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool is_break(unsigned char c) { return c == '\r' || c == '\n'; }
int nibble(unsigned char c) {
  if (c <= '9') {
    return c - '0';
  }
  return (c | 0x20) - 'a' + 10;
}
std::string be16(size_t n) { return {static_cast<char>((n >> 8) & 0xff), static_cast<char>(n & 0xff)}; }

// The text rules, stated on whole runs of the text rather than byte by byte.
Expected model(const std::string& t) {
  const Expected refused{KORA_ERROR, std::nullopt};
  const size_t n = t.size();
  size_t entries = 0;
  std::string body;
  auto table = [&](const std::string& tail) {
    return std::string("\xB7\x00", 2) + be16(entries) + body + tail;
  };

  size_t p = 0;
  for (;;) {
    // Identity: up to the first ":", or a "|"...""|:" section that may hold ":".
    const size_t stop = t.find_first_of(":|", p);
    if (stop == std::string::npos) {
      return refused;
    }
    std::string identity = t.substr(p, stop - p);
    size_t q = stop + 1;
    if (t[stop] == '|') {
      const size_t close = t.find('|', stop + 1);
      if (close == std::string::npos || close + 1 >= n || t[close + 1] != ':') {
        return refused;
      }
      identity += t.substr(stop + 1, close - stop - 1);
      q = close + 2;
    }
    if (identity.empty() || identity.size() > 65535 || q >= n) {
      return refused;
    }

    // Key: the run of hex digits after the ":".
    size_t e = q;
    while (e < n && is_hex(static_cast<unsigned char>(t[e]))) {
      ++e;
    }
    const size_t digits = e - q;
    std::string key;
    for (size_t i = 0; i + 1 < digits; i += 2) {
      key.push_back(static_cast<char>(nibble(static_cast<unsigned char>(t[q + i])) << 4 |
                                      nibble(static_cast<unsigned char>(t[q + i + 1]))));
    }
    const bool at_end = e == n;
    const bool odd = digits % 2 == 1;
    const std::string head = be16(identity.size()) + identity;

    if (key.empty() || key.size() > 256) {
      if (!at_end) {
        return refused;
      }
      // Dropped uncounted; its bytes (key length left zero) trail the table.
      return {KORA_ERROR, table(head + std::string(2, '\0') + key)};
    }
    body += head + be16(key.size()) + key;
    if (at_end) {
      ++entries;
      return {odd ? KORA_ERROR : KORA_OK, table("")};
    }
    if (odd || !is_break(static_cast<unsigned char>(t[e]))) {
      return refused;
    }
    ++entries;
    while (e < n && is_break(static_cast<unsigned char>(t[e]))) {
      ++e;
    }
    if (e == n) {
      return {KORA_OK, table("")};
    }
    p = e;
  }
}

void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "psk parser disagrees with the model: %s\n", what);
    std::abort();
  }
}

void silent_sink(const msg_const_type*, const char*, void*) {}

}  // namespace

extern "C" int SSL_cert_store(const char* name, const kora_Net_SSL_Cert_Type_t type, const void* cert,
                              int size, bool priv_key) {
  ++g_capture.calls;
  g_capture.name = name != nullptr ? name : "";
  g_capture.type = type;
  g_capture.priv_key = priv_key;
  g_capture.table.assign(static_cast<const char*>(cert), size > 0 ? static_cast<size_t>(size) : 0);
  return g_capture.result;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  msg_set_sink(&silent_sink, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;  // refused as a missing argument before any parsing
  }
  // A copy of exactly `size` bytes, so reading past the text is caught.
  auto* text = static_cast<uint8_t*>(std::malloc(size));
  std::memcpy(text, data, size);
  const std::string as_string(reinterpret_cast<const char*>(data), size);
  const Expected expected = model(as_string);

  for (const int store_result : {KORA_OK, KORA_ERROR}) {
    g_capture = Capture{};
    g_capture.result = store_result;
    kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(size), text};
    const int32_t result = ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>("fuzz"));

    check(g_capture.calls == (expected.table ? 1 : 0), "store calls");
    if (expected.table) {
      check(g_capture.table == *expected.table, "stored bytes");
      check(g_capture.name == "fuzz" && g_capture.type == KORA_NET_SSL_PSK_TABLE_E && !g_capture.priv_key,
            "store arguments");
    }
    const int want = expected.table && store_result != KORA_OK ? KORA_ERROR : expected.result;
    check(result == want, "result");
    check(std::memcmp(text, data, size) == 0, "text left unchanged");
  }
  std::free(text);
  return 0;
}
