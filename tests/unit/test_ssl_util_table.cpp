// The table of SSL objects: handles, lookups, the recorded credential name, what freeing an
// object releases, a full table, and lookups made while another caller holds ssl_mutex.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "heap_watch.h"
#include "log_capture.h"
#include "ssl_util.h"

namespace {

int index_of(SSL_CTX* ctx) {
  int index = -1;
  utility_get_ssl_ctxt(ctx, &index);
  return index;
}

ssl_obj_hdl_t create(ssl_obj_role_t role = SSL_OBJ_ROLE_CLIENT) {
  ssl_obj_hdl_t hdl = 0;
  EXPECT_EQ(ssl_obj_create(role, &hdl), 0);
  return hdl;
}

TEST(SslUtilTable, CreateGivesDistinctHandlesWithOwnContextsOfTheRole) {
  const ssl_obj_hdl_t client = create(SSL_OBJ_ROLE_CLIENT), server = create(SSL_OBJ_ROLE_SERVER);
  ASSERT_TRUE(client != 0 && server != 0 && client != server);
  for (const auto& [hdl, method] :
       {std::pair{client, TLS_client_method()}, std::pair{server, TLS_server_method()}}) {
    SSL_CTX* ctx = ssl_get_obj_context(hdl);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(SSL_CTX_get_ssl_method(ctx), method);
    ASSERT_GE(index_of(ctx), 0);
    EXPECT_EQ(g_ssl_ctxt[index_of(ctx)].obj_hndl, hdl);
  }
  EXPECT_EQ(ssl_obj_free(client), 0);
  EXPECT_EQ(ssl_obj_free(client), -2) << "second free of one handle";
  EXPECT_EQ(ssl_get_obj_context(client), nullptr) << "stale handle still resolves";
}

int g_marked_certs_freed = 0;  // X509 objects destroyed while carrying our ex-data mark

TEST(SslUtilTable, FreeReleasesIdentityCertPskTableAndClearsRecord) {
  const ssl_obj_hdl_t hdl = create();
  SSL_CTX* ctx = ssl_get_obj_context(hdl);
  const int index = index_of(ctx);
  const int mark = X509_get_ex_new_index(
      0, nullptr, nullptr, nullptr,
      [](void*, void* ptr, CRYPTO_EX_DATA*, int, long, void*) { g_marked_certs_freed += ptr != nullptr; });
  X509* cert = X509_new();
  ASSERT_EQ(X509_set_ex_data(cert, mark, reinterpret_cast<void*>(1)), 1);
  ASSERT_EQ(SSL_CTX_set_ex_data(ctx, SSL_DI_CERT_EX_DATA_INDEX, cert), 1);  // the object owns it now
  char* table = static_cast<char*>(std::malloc(64));
  g_ssl_ctxt[index].psk_identify_key = table;
  SSL_set_cert_info(ctx, "dev");
  ASSERT_EQ(ssl_obj_free(hdl), 0);
  EXPECT_EQ(g_marked_certs_freed, 1) << "certificate at ex-data index 1 not freed";
  EXPECT_FALSE(kora::test::heap::is_live(table)) << "PSK table not freed";
  EXPECT_EQ(g_ssl_ctxt[index].psk_identify_key, nullptr);
  EXPECT_EQ(g_ssl_ctxt[index].obj_hndl, 0u);
  EXPECT_STREQ(g_ssl_ctxt[index].cert, "");
}

TEST(SslUtilTable, FullTableRefusesWithItsMessage) {
  for (int i = 0; i < SSL_MAX_OBJ; ++i) {
    create();
  }
  kora::test::LogCapture log;
  ssl_obj_hdl_t extra = 0;
  EXPECT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &extra), -3);
  ASSERT_EQ(log.messages().size(), 1u);
  const auto m = log.messages()[0];
  EXPECT_EQ(m.text, "ssl_obj_create: all 10 SSL objects are in use\n");
  EXPECT_TRUE(m.mask == kora::test::kError && m.fname == "ssl_util" && m.ss_id == 65);
  // Lookups that miss walk the whole full table and stop at its end (AddressSanitizer sees more).
  SSL_CTX* foreign = SSL_CTX_new(TLS_method());
  int index = -1;
  EXPECT_EQ(utility_get_ssl_ctxt(foreign, &index), -1);
  EXPECT_EQ(ssl_get_obj_context(0xffffffffu), nullptr);
  SSL_CTX_free(foreign);
}

TEST(SslUtilSmallCalls, LengthEdges) {
  const std::string pad(0x80, '\0');
  // DER only for a SEQUENCE with a definite, minimal length that fits what was handed in.
  for (const auto& [bytes, der] :
       std::initializer_list<std::pair<std::string, int>>{{"\x30\x81\x80" + pad, 1},
                                                          {std::string("\x30\x02\x05\x00", 4), 1},
                                                          {std::string("\x31\x00", 2), 0},
                                                          {"\x30", 0},
                                                          {"\x30\x80" + pad, 0},
                                                          {"\x30\x85\x01\x01\x01\x01\x01" + pad, 0},
                                                          {std::string("\x30\x82\x00\x80", 4) + pad, 0},
                                                          {"\x30\x82\x01", 0},
                                                          {"\x30\x81\x7f" + pad, 0},
                                                          {"\x30\x03\x05", 0}}) {
    EXPECT_EQ(openssl_IsDerFormat(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), der)
        << testing::PrintToString(bytes.substr(0, 4));
  }
  uint8_t buf[2] = {0, 0};
  for (int i = 0; i < 64 && buf[0] == 0; ++i) {
    ASSERT_EQ(ssl_get_random_number(1, buf), 0);
  }
  EXPECT_NE(buf[0], 0) << "a 1-byte request left the byte as it was";
  EXPECT_EQ(buf[1], 0) << "a 1-byte request wrote past it";
}

// The name is copied bounded; lookups and the record work while the store holds ssl_mutex.
TEST(SslUtilTable, LookupsDoNotTakeTheLockTheStoreHolds) {
  const ssl_obj_hdl_t hdl = create();
  const std::string longer(300, 'n');
  ivra_mutex_lock(&ssl_mutex);  // as the load dispatcher does around its loaders
  SSL_CTX* ctx = ssl_get_obj_context(hdl);
  int index = -1;
  EXPECT_EQ(utility_get_ssl_ctxt(ctx, &index), 0);
  EXPECT_EQ(SSL_set_cert_info(ctx, longer.c_str()), 0);
  ivra_mutex_unlock(&ssl_mutex);
  EXPECT_EQ(std::string(g_ssl_ctxt[index].cert), longer.substr(0, sizeof g_ssl_ctxt[index].cert - 1));
}

}  // namespace
