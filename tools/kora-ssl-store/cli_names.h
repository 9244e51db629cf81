// Credential names and kinds as the command line writes them.
#pragma once

#include <algorithm>
#include <optional>
#include <string>

#include "kora_net_ssl.h"

namespace kora::cli {

// The store appends a name to its directory as it is, so every command refuses, before the
// store sees it, any name but 1 to 63 printable ASCII characters without "/", and "." and "..".
inline constexpr size_t kMaxNameLen = 63;

// Empty when `name` may be used, else why not (one phrase, e.g. "it contains \"/\"").
std::string name_problem(const std::string& name);

// Empty when `name` may be used, else the line that refuses it: "refusing name 'NAME': why".
std::string name_refusal(const std::string& name);

struct Kind {
  const char* word;   // as the command line writes it
  const char* title;  // as a sentence names it
  kora_Net_SSL_Cert_Type_t type;
};

// The kinds of stored credential, in store order: the one place their words are written.
inline constexpr Kind kKinds[] = {
    {"cert", "certificate", KORA_NET_SSL_CERTIFICATE_E},
    {"ca", "CA list", KORA_NET_SSL_CA_LIST_E},
    {"psk", "PSK table", KORA_NET_SSL_PSK_TABLE_E},
    {"di", "device-identity certificate", KORA_NET_SSL_DI_CERT_E},
};

// The longest kind word: listings pad the word to it.
inline constexpr int kKindWordWidth = [] {
  size_t widest = 0;
  for (const Kind& k : kKinds) {
    widest = std::max(widest, std::char_traits<char>::length(k.word));
  }
  return static_cast<int>(widest);
}();

// The kind of `word`; std::nullopt and the usage line in *why when there is none.
std::optional<Kind> parse_kind(const std::string& word, std::string* why);
// The kind of a store type; null for a value outside 1..4.
const Kind* find_kind(kora_Net_SSL_Cert_Type_t type);
// The kind words joined as `separator` joins them, the last two by `last`: "cert, ca, psk
// or di", "cert|ca|psk|di".
std::string kind_words(const char* separator, const char* last);
// The option that names a stored credential of `type` for connect and serve: "--" and its
// kind word ("--cert", "--ca", "--psk").
std::string kind_option(kora_Net_SSL_Cert_Type_t type);
// The KIND and NAME words that put and rm start with: empty with *kind set, else why they
// are refused (one line for a usage error).
std::string target_problem(const std::string& kind_word, const std::string& name, Kind* kind);

}  // namespace kora::cli
