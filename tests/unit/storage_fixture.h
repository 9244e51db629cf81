// Store tests: an initialised store in the private root, file helpers, the unsealed content of
// a stored file, the stored form of a PSK table and the state of ssl_mutex; the log capture and
// heap watch every store test uses come with it.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "heap_watch.h"
#include "kora_net_ssl.h"
#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_util.h"

namespace kora::test {

inline const std::string kStoreRoot = "/data/data_velto/.ssl/";
inline const std::string kCerts = kStoreRoot + "certs/", kCaLists = kStoreRoot + "ca_lists/";
inline const std::string kPskTables = kStoreRoot + "psk_table/", kSessions = kStoreRoot + "sessions/";

// True when no thread holds ssl_mutex: the shim's own state, read under its guard, no waiting.
inline bool store_lock_is_free() {
  pthread_mutex_lock(&ssl_mutex.guard);
  const bool free = ssl_mutex.held == 0;
  pthread_mutex_unlock(&ssl_mutex.guard);
  return free;
}

class StorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::mkdir("/data/km", 0700);
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    ASSERT_EQ(ssl_store_init(), 0);
  }
  // Every store call of the case has returned: ssl_mutex is free unless the case made a call
  // that keeps it held.
  void TearDown() override {
    EXPECT_TRUE(lock_held_on_purpose_ || store_lock_is_free()) << "a store call returned with ssl_mutex held";
  }
  bool lock_held_on_purpose_ = false;
};

using std::filesystem::exists;

// Stores `bytes` under `name`; the store's status.
inline int store(const std::string& name, kora_Net_SSL_Cert_Type_t type, const std::string& bytes,
                 bool key = false) {
  return SSL_cert_store(name.c_str(), type, bytes.data(), static_cast<int>(bytes.size()), key);
}

// An empty plain file.
inline void write_plain(const std::string& path) { ASSERT_TRUE(std::ofstream(path).good()) << path; }

// The unsealed content of a stored credential file, or nothing when it cannot be read.
inline std::optional<std::string> read_stored(const std::string& path) {
  void* buffer = nullptr;
  size_t size = 0;
  if (ssl_store_cert_read_decrypt_from_file(path.c_str(), &buffer, &size) != 0) {
    return std::nullopt;
  }
  std::string content(static_cast<const char*>(buffer), size);
  std::free(buffer);
  return content;
}

// A 16-bit value big-endian, as the stored PSK table holds its counts and lengths.
inline std::string be16(size_t n) {
  return {static_cast<char>((n >> 8) & 0xff), static_cast<char>(n & 0xff)};
}

// The stored form of (identity, key bytes) entries: header with the big-endian count (kept
// modulo 65536), then the entries.
using PskEntries = std::vector<std::pair<std::string, std::string>>;
inline std::string psk_table(const PskEntries& entries) {
  std::string t = std::string("\xB7\x00", 2) + be16(entries.size());
  for (const auto& [identity, key] : entries) {
    t += be16(identity.size()) + identity + be16(key.size()) + key;
  }
  return t;
}

}  // namespace kora::test
