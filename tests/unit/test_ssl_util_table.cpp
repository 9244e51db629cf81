// The table of SSL objects: handles, lookups, the recorded credential name, what freeing an
// object releases, a full table, and lookups made while another caller holds ssl_mutex.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "ossl_ptr.h"
#include "ssl_util.h"

namespace {

using kora::test::LogCapture;

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
    const int index = index_of(ctx);
    ASSERT_GE(index, 0);
    EXPECT_EQ(g_ssl_ctxt[index].obj_hndl, hdl);
    EXPECT_EQ(g_ssl_ctxt[index].psk_identify_key, nullptr);
  }
  EXPECT_NE(ssl_get_obj_context(client), ssl_get_obj_context(server));
}

TEST(SslUtilTable, BadArgumentsUnknownHandlesAndForeignContexts) {
  ssl_obj_hdl_t hdl = 0;
  EXPECT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, nullptr), -2);
  EXPECT_EQ(ssl_obj_create(static_cast<ssl_obj_role_t>(7), &hdl), -2);
  EXPECT_EQ(hdl, 0u);
  hdl = create();
  for (ssl_obj_hdl_t unknown : {0u, hdl + 1000u}) {
    EXPECT_EQ(ssl_get_obj_context(unknown), nullptr) << unknown;
    EXPECT_EQ(ssl_obj_free(unknown), -2) << unknown;
  }
  EXPECT_EQ(ssl_obj_free(hdl), 0);
  EXPECT_EQ(ssl_obj_free(hdl), -2) << "second free of one handle";
  EXPECT_EQ(ssl_get_obj_context(hdl), nullptr) << "stale handle still resolves";

  kora::SslCtxPtr foreign(SSL_CTX_new(TLS_client_method()));
  for (SSL_CTX* ctx : {static_cast<SSL_CTX*>(nullptr), foreign.get()}) {
    int index = 77;
    EXPECT_EQ(utility_get_ssl_ctxt(ctx, &index), -1);
    EXPECT_EQ(index, 77) << "index changed by a failed lookup";
  }
  EXPECT_EQ(utility_get_ssl_ctxt(foreign.get(), nullptr), -1);
}

TEST(SslUtilTable, CertInfoRecordsTheNameBoundedAndRefusesWhatItCannotRecord) {
  SSL_CTX* ctx = ssl_get_obj_context(create());
  gbl_ssl_ctx_t& rec = g_ssl_ctxt[index_of(ctx)];
  ASSERT_EQ(SSL_set_cert_info(ctx, "dev"), 0);
  EXPECT_STREQ(rec.cert, "dev");
  kora::SslCtxPtr foreign(SSL_CTX_new(TLS_client_method()));
  LogCapture log;
  EXPECT_NE(SSL_set_cert_info(nullptr, "x"), 0);
  EXPECT_NE(SSL_set_cert_info(foreign.get(), "x"), 0);
  EXPECT_NE(SSL_set_cert_info(ctx, nullptr), 0);
  EXPECT_STREQ(rec.cert, "dev") << "a refused call changed the record";
  EXPECT_EQ(log.messages().size(), 3u);
  const std::string longer(300, 'n');
  ASSERT_EQ(SSL_set_cert_info(ctx, longer.c_str()), 0);
  EXPECT_EQ(std::string(rec.cert), longer.substr(0, sizeof rec.cert - 1));
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
  // A table large enough to live in its own mapping, so its release shows in mallinfo2.
  constexpr size_t kTableSize = 4u << 20;
  g_ssl_ctxt[index].psk_identify_key = static_cast<char*>(std::malloc(kTableSize));
  ASSERT_NE(g_ssl_ctxt[index].psk_identify_key, nullptr);
  SSL_set_cert_info(ctx, "dev");
  const size_t mapped_before = mallinfo2().hblkhd;

  ASSERT_EQ(ssl_obj_free(hdl), 0);
  EXPECT_EQ(g_marked_certs_freed, 1) << "certificate at ex-data index 1 not freed";
  EXPECT_LE(mallinfo2().hblkhd + kTableSize, mapped_before) << "PSK table not freed";
  EXPECT_EQ(g_ssl_ctxt[index].psk_identify_key, nullptr);
  EXPECT_EQ(g_ssl_ctxt[index].obj_hndl, 0u);
  EXPECT_STREQ(g_ssl_ctxt[index].cert, "");
}

TEST(SslUtilTable, FullTableRefusesThenAFreedSlotIsReusedUnderANewHandle) {
  std::vector<ssl_obj_hdl_t> handles(SSL_MAX_OBJ);
  for (auto& hdl : handles) {
    hdl = create(SSL_OBJ_ROLE_SERVER);
  }
  LogCapture log;
  ssl_obj_hdl_t extra = 0;
  EXPECT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &extra), -3);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].text, "ssl_obj_create: all 10 SSL objects are in use\n");
  EXPECT_EQ(log.messages()[0].mask, kora::test::kError);
  EXPECT_EQ(log.messages()[0].fname, "ssl_util");
  EXPECT_EQ(log.messages()[0].ss_id, 65);
  ASSERT_EQ(ssl_obj_free(handles[4]), 0);
  extra = create();
  EXPECT_EQ(std::count(handles.begin(), handles.end(), extra), 0)
      << "handle of a freed object handed out again";
  EXPECT_EQ(ssl_get_obj_context(handles[4]), nullptr);
}

TEST(SslUtilTable, LookupsDoNotTakeTheLockTheStoreHolds) {
  const ssl_obj_hdl_t hdl = create();
  ivra_mutex_lock(&ssl_mutex);  // as the load dispatcher does around its loaders
  SSL_CTX* ctx = ssl_get_obj_context(hdl);
  int index = -1;
  EXPECT_EQ(utility_get_ssl_ctxt(ctx, &index), 0);
  EXPECT_EQ(SSL_set_cert_info(ctx, "held"), 0);
  ivra_mutex_unlock(&ssl_mutex);
  EXPECT_STREQ(g_ssl_ctxt[index].cert, "held");
}

TEST(SslUtilTable, ConcurrentCreateAndFreeKeepHandlesUniqueAndLoseNoSlot) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        ssl_obj_hdl_t hdl = 0;
        int index = -1;
        const bool ok = ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl) == 0 &&
                        utility_get_ssl_ctxt(ssl_get_obj_context(hdl), &index) == 0 &&
                        g_ssl_ctxt[index].obj_hndl == hdl && ssl_obj_free(hdl) == 0;
        failures += !ok;
      }
    });
  }
  for (auto& th : threads) {
    th.join();
  }
  EXPECT_EQ(failures.load(), 0);
  for (int i = 0; i < SSL_MAX_OBJ; ++i) {
    EXPECT_NE(create(), 0u) << "a slot was lost";
  }
}

}  // namespace
