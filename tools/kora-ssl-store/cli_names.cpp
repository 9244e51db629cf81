// Name checks and the kind words of the command line.
#include "cli_names.h"

#include <cstdio>
#include <iterator>

namespace kora::cli {
namespace {

constexpr Kind kKinds[] = {
    {"cert", "certificate", KORA_NET_SSL_CERTIFICATE_E},
    {"ca", "CA list", KORA_NET_SSL_CA_LIST_E},
    {"psk", "PSK table", KORA_NET_SSL_PSK_TABLE_E},
    {"di", "device-identity certificate", KORA_NET_SSL_DI_CERT_E},
};

}  // namespace

std::string name_problem(const std::string& name) {
  if (name.empty()) {
    return "it is empty";
  }
  if (name.size() > kMaxNameLen) {
    return "it has " + std::to_string(name.size()) + " characters, at most " + std::to_string(kMaxNameLen) +
           " are allowed";
  }
  for (const char c : name) {
    if (c < ' ' || c > '~') {
      return "it contains the byte " + escaped(std::string(1, c)) + ": only printable ASCII is allowed";
    }
  }
  if (name.find('/') != std::string::npos) {
    return "it contains \"/\"";
  }
  if (name == "." || name == "..") {
    return "\"" + name + "\" names a directory";
  }
  return std::string();
}

std::string name_refusal(const std::string& name) {
  const std::string why = name_problem(name);
  return why.empty() ? why : "refusing name '" + escaped(name) + "': " + why;
}

std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c >= ' ' && c <= '~') {
      out += c;
    } else {
      char hex[5];
      (void)std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
      out += hex;
    }
  }
  return out;
}

const Kind* kinds_begin() { return std::begin(kKinds); }
const Kind* kinds_end() { return std::end(kKinds); }

std::optional<Kind> parse_kind(const std::string& word) {
  for (const Kind& k : kKinds) {
    if (word == k.word) {
      return k;
    }
  }
  return std::nullopt;
}

const Kind* find_kind(kora_Net_SSL_Cert_Type_t type) {
  for (const Kind& k : kKinds) {
    if (k.type == type) {
      return &k;
    }
  }
  return nullptr;
}

std::string kind_words() {
  std::string words;
  for (const Kind* k = kinds_begin(); k != kinds_end(); ++k) {
    words += k == kinds_begin() ? "" : k + 1 == kinds_end() ? " or " : ", ";
    words += k->word;
  }
  return words;
}

std::string kind_option(kora_Net_SSL_Cert_Type_t type) { return std::string("--") + find_kind(type)->word; }

std::string target_problem(const std::string& kind_word, const std::string& name, Kind* kind) {
  const std::optional<Kind> found = parse_kind(kind_word);
  if (!found) {
    return "unknown kind '" + kind_word + "': use " + kind_words();
  }
  if (std::string refusal = name_refusal(name); !refusal.empty()) {
    return refusal;
  }
  *kind = *found;
  return "";
}

}  // namespace kora::cli
