// Shared set-up of the storage tests: an initialised store in the private root, plain-file
// helpers, the unsealed content of a stored file, a probe of ssl_mutex from another thread,
// and test names for table-driven cases (every case struct has a `label`).
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "kora_net_ssl.h"
#include "ssl_store.h"
#include "ssl_util.h"

namespace kora::test {

inline const std::string kStoreRoot = "/data/data_velto/.ssl/";
inline const std::string kCerts = "/data/data_velto/.ssl/certs/";
inline const std::string kCaLists = "/data/data_velto/.ssl/ca_lists/";
inline const std::string kPskTables = "/data/data_velto/.ssl/psk_table/";
inline const std::string kDiCerts = "/data/data_velto/.ssl/di_certs/";
inline const std::string kPrivateKeys = "/data/data_velto/.ssl/private_keys/";
inline const std::string kSessions = "/data/data_velto/.ssl/sessions/";
inline const std::string kKindDirs[] = {"", kCerts, kCaLists, kPskTables, kDiCerts};  // by kind 1..4

class StorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::mkdir("/data/km", 0700);
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    ASSERT_EQ(ssl_store_init(), 0);
  }
};

inline constexpr auto kCaseName = [](const auto& test_case) { return std::string(test_case.param.label); };

inline bool file_exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

inline void write_plain(const std::string& path, const std::string& content = "x") {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr) << path;
  ASSERT_EQ(std::fwrite(content.data(), 1, content.size(), f), content.size());
  ASSERT_EQ(std::fclose(f), 0);
}

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

// True when another thread takes and releases ssl_mutex within `wait`. When it does not, the
// probe thread stays blocked for the rest of the process.
inline bool store_lock_is_free(std::chrono::milliseconds wait = std::chrono::milliseconds(1000)) {
  auto done = std::make_shared<std::promise<void>>();
  auto taken = done->get_future();
  std::thread([done] {
    ivra_mutex_lock(&ssl_mutex);
    ivra_mutex_unlock(&ssl_mutex);
    done->set_value();
  }).detach();
  return taken.wait_for(wait) == std::future_status::ready;
}

}  // namespace kora::test
