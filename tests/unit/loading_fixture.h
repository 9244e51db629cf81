// Loading tests: the initialised store of the storage tests plus one client SSL object, the SSL
// object layer's record of that object, and the certificate factory that makes what is loaded.
#pragma once

#include <string>
#include <vector>

#include "kora_certgen.h"
#include "ossl_ptr.h"
#include "storage_fixture.h"

namespace kora::test {

class LoadingTest : public StorageTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(StorageTest::SetUp());
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl_), 0);
    ctx_ = ssl_get_obj_context(hdl_);
  }
  void TearDown() override {
    ssl_obj_free(hdl_);
    StorageTest::TearDown();
  }

  static void put(const std::string& name, kora_Net_SSL_Cert_Type_t type, const std::string& bytes,
                  bool key = false) {
    ASSERT_EQ(store(name, type, bytes, key), 0);
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

}  // namespace kora::test
