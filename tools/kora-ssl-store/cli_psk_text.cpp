// Line-by-line checks of a PSK table's text.
#include "cli_psk_text.h"

#include <openssl/ssl.h>

#include <cctype>
#include <map>
#include <string_view>

namespace kora::cli {
namespace {

constexpr char kCommentMark = '#';
constexpr char kSeparator = ':';
constexpr char kQuote = '|';
constexpr size_t kHexDigitsPerByte = 2;

bool is_blank(std::string_view line) {
  for (const char c : line) {
    if (c != ' ' && c != '\t') {
      return false;
    }
  }
  return true;
}

bool is_comment(std::string_view line) {
  const size_t first = line.find_first_not_of(" \t");
  return first != std::string_view::npos && line[first] == kCommentMark;
}

// Splits an entry line into identity and key; empty with the reason on failure.
std::string split_entry(std::string_view line, std::string_view* identity, std::string_view* key) {
  if (!line.empty() && line.front() == kQuote) {
    const size_t end = line.find(std::string{kQuote, kSeparator}, 1);
    if (end == std::string_view::npos) {
      return "a quoted identity must end in \"|:\" before the key";
    }
    *identity = line.substr(1, end - 1);
    *key = line.substr(end + 2);
    if (identity->find(kQuote) != std::string_view::npos) {
      return "a quoted identity cannot hold \"|\"";
    }
    return "";
  }
  const size_t sep = line.find(kSeparator);
  if (sep == std::string_view::npos) {
    return "no \":\" between identity and key (expected IDENTITY:HEXKEY)";
  }
  *identity = line.substr(0, sep);
  *key = line.substr(sep + 1);
  if (identity->find(kQuote) != std::string_view::npos) {
    return "\"|\" in an identity: write the identity as |IDENTITY|:HEXKEY";
  }
  return "";
}

std::string identity_problem(std::string_view identity) {
  if (identity.empty()) {
    return "the identity is empty";
  }
  if (identity.find('\0') != std::string_view::npos) {
    return "the identity holds a NUL byte, which OpenSSL cannot send";
  }
  if (identity.find('\r') != std::string_view::npos) {
    return "a carriage return inside the line";
  }
  if (identity.size() > PSK_MAX_IDENTITY_LEN) {
    return "the identity has " + std::to_string(identity.size()) + " bytes; OpenSSL sends at most " +
           std::to_string(PSK_MAX_IDENTITY_LEN);
  }
  return "";
}

std::string key_problem(std::string_view key) {
  if (key.empty()) {
    return "the key is empty";
  }
  for (const char c : key) {
    if (std::isxdigit(static_cast<unsigned char>(c)) == 0) {
      return "the key is not hexadecimal (only 0-9, a-f, A-F; no blanks)";
    }
  }
  if (key.size() % kHexDigitsPerByte != 0) {
    return "the key has an odd number of hexadecimal digits (two per byte)";
  }
  if (key.size() / kHexDigitsPerByte > kMaxPskKeyBytes) {
    return "the key has " + std::to_string(key.size() / kHexDigitsPerByte) +
           " bytes; the store holds at most " + std::to_string(kMaxPskKeyBytes);
  }
  return "";
}

}  // namespace

bool check_psk_text(const SecureVector& text, SecureVector* clean, size_t* entries, std::string* why) {
  const std::string_view all(reinterpret_cast<const char*>(text.data()), text.size());
  std::map<std::string_view, size_t> seen;  // identity -> line number
  SecureVector& out = *clean;
  out.clear();
  out.reserve(text.size());
  *entries = 0;
  size_t number = 0;
  for (size_t start = 0; start < all.size();) {
    const size_t end = std::min(all.find('\n', start), all.size());
    std::string_view line = all.substr(start, end - start);
    start = end + 1;
    ++number;
    if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    if (is_blank(line) || is_comment(line)) {
      continue;
    }
    std::string_view identity;
    std::string_view key;
    std::string problem = split_entry(line, &identity, &key);
    if (problem.empty()) {
      problem = identity_problem(identity);
    }
    if (problem.empty()) {
      problem = key_problem(key);
    }
    if (problem.empty()) {
      if (const auto [it, added] = seen.emplace(identity, number); !added) {
        problem = "duplicate identity (first on line " + std::to_string(it->second) + ")";
      }
    }
    if (!problem.empty()) {
      *why = "line " + std::to_string(number) + ": " + problem;
      return false;
    }
    if (!out.empty()) {
      out.push_back('\n');
    }
    out.insert(out.end(), line.begin(), line.end());
    ++*entries;
  }
  if (*entries == 0) {
    *why = "holds no IDENTITY:HEXKEY line";
    return false;
  }
  return true;
}

}  // namespace kora::cli
