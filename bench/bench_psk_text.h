// PSK tables in the callers' text form, made up for the benchmarks: "client-NNNNNNN:" and
// a 32-byte key in hexadecimal per line. The key of an identity is derived from it, so a
// TLS server can find it again without a table of its own.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kora::bench {

inline constexpr size_t kBenchKeyLength = 32;

inline std::string identity_of(size_t index) {
  char id[32];
  std::snprintf(id, sizeof id, "client-%07zu", index);
  return id;
}

// A fixed function of the identity (FNV-1a seeded, then a linear congruential stream).
inline std::vector<uint8_t> key_of(const std::string& identity) {
  uint32_t h = 2166136261u;
  for (unsigned char c : identity) {
    h = (h ^ c) * 16777619u;
  }
  std::vector<uint8_t> key(kBenchKeyLength);
  for (auto& b : key) {
    h = h * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(h >> 24);
  }
  return key;
}

inline std::string hex_of(const std::vector<uint8_t>& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (uint8_t b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 0xF];
  }
  return out;
}

struct PskText {
  std::string text;    // "identity:hexkey\n" lines
  std::string digits;  // every key's digits back to back, as one hex string
  size_t entries = 0;
};

// Whole lines, one per identity in order, while there are fewer than `max_entries` and the
// next line fits in `max_bytes` of text.
inline PskText psk_text(size_t max_entries, size_t max_bytes) {
  PskText t;
  for (; t.entries < max_entries; ++t.entries) {
    const std::string id = identity_of(t.entries);
    const std::string hex = hex_of(key_of(id));
    const std::string line = id + ":" + hex + "\n";
    if (t.text.size() + line.size() > max_bytes) {
      break;
    }
    t.text += line;
    t.digits += hex;
  }
  return t;
}

// A table of exactly `entries` lines.
inline PskText psk_text_with_entries(size_t entries) { return psk_text(entries, SIZE_MAX); }

// As many whole lines as fit in `bytes` of text.
inline PskText psk_text_of_size(size_t bytes) { return psk_text(SIZE_MAX, bytes); }

}  // namespace kora::bench
