// Credential names and kinds as the command line writes them.
#pragma once

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

// `text` as it may be printed: printable ASCII as it is, a backslash doubled, any other byte
// as \xHH. For every name that comes from the store or the command line.
std::string escaped(const std::string& text);

struct Kind {
  const char* word;   // "cert", "ca", "psk", "di"
  const char* title;  // "certificate", ...
  kora_Net_SSL_Cert_Type_t type;
};

// The four kinds in store order.
const Kind* kinds_begin();
const Kind* kinds_end();
std::optional<Kind> parse_kind(const std::string& word);
// The kind of a store type; null for a value outside 1..4.
const Kind* find_kind(kora_Net_SSL_Cert_Type_t type);
// "cert, ca, psk or di"
std::string kind_words();
// The option that names a stored credential of `type` for connect and serve: "--" and its
// kind word ("--cert", "--ca", "--psk").
std::string kind_option(kora_Net_SSL_Cert_Type_t type);
// The KIND and NAME words that put and rm start with: empty with *kind set, else why they
// are refused (one line for a usage error).
std::string target_problem(const std::string& kind_word, const std::string& name, Kind* kind);

}  // namespace kora::cli
