// Name checks and the kind words of the command line.
#include "cli_names.h"

#include <glib.h>

#include <iterator>

#include "cli_format.h"

namespace kora::cli {

std::string name_problem(const std::string& name) {
  if (name.empty()) {
    return "it is empty";
  }
  if (name.size() > kMaxNameLen) {
    return "it has " + std::to_string(name.size()) + " characters, at most " + std::to_string(kMaxNameLen) +
           " are allowed";
  }
  for (const char c : name) {
    if (!g_ascii_isprint(c)) {
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

std::optional<Kind> parse_kind(const std::string& word, std::string* why) {
  for (const Kind& k : kKinds) {
    if (word == k.word) {
      return k;
    }
  }
  *why = "unknown kind '" + word + "': use " + kind_words(", ", " or ");
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

std::string kind_words(const char* separator, const char* last) {
  std::string words;
  for (const Kind& k : kKinds) {
    words += &k == std::begin(kKinds) ? "" : &k == std::end(kKinds) - 1 ? last : separator;
    words += k.word;
  }
  return words;
}

std::string kind_option(kora_Net_SSL_Cert_Type_t type) { return std::string("--") + find_kind(type)->word; }

std::string target_problem(const std::string& kind_word, const std::string& name, Kind* kind) {
  std::string why;
  const std::optional<Kind> found = parse_kind(kind_word, &why);
  if (!found) {
    return why;
  }
  if (std::string refusal = name_refusal(name); !refusal.empty()) {
    return refusal;
  }
  *kind = *found;
  return "";
}

}  // namespace kora::cli
