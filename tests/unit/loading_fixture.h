#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kora_net_ssl.h"
#include "ossl_ptr.h"
#include "ssl_store.h"
#include "ssl_util.h"

namespace kora::test {

class LoadingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    ::mkdir("/data/km", 0700);
    ASSERT_EQ(ssl_store_init(), 0);
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl_), 0);
    ctx_ = ssl_get_obj_context(hdl_);
  }
  void TearDown() override { ssl_obj_free(hdl_); }

  static void put(const std::string& name, kora_Net_SSL_Cert_Type_t type, const std::string& bytes,
                  bool key = false) {
    ASSERT_EQ(SSL_cert_store(name.c_str(), type, bytes.data(), static_cast<int>(bytes.size()), key), 0);
  }
  static std::string bytes_of(const std::vector<uint8_t>& v) { return std::string(v.begin(), v.end()); }
  gbl_ssl_ctx_t& record() const {
    int index = -1;
    utility_get_ssl_ctxt(ctx_, &index);
    return g_ssl_ctxt[index];
  }

  ssl_obj_hdl_t hdl_ = 0;
  SSL_CTX* ctx_ = nullptr;
};

// A binary PSK table as the store keeps it: header with the big-endian count, then entries.
inline std::string psk_table(const std::vector<std::pair<std::string, std::string>>& entries) {
  auto be16 = [](size_t n) { return std::string{static_cast<char>(n >> 8), static_cast<char>(n & 0xff)}; };
  std::string t = std::string("\xB7\x00", 2) + be16(entries.size());
  for (const auto& [identity, key] : entries) {
    t += be16(identity.size()) + identity + be16(key.size()) + key;
  }
  return t;
}

}  // namespace kora::test
