// The table of SSL objects: handles, lookups, the recorded credential name, what freeing an
// object releases, a full table, and lookups made while another caller holds ssl_mutex.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "ossl_ptr.h"
#include "ssl_util.h"

namespace {

using kora::test::kError;
using kora::test::LogCapture;

int index_of(SSL_CTX* ctx) {
  int index = -1;
  utility_get_ssl_ctxt(ctx, &index);
  return index;
}

TEST(SslUtilTable, CreateGivesDistinctNonZeroHandlesWithOwnContextsOfTheRole) {
  struct Row {
    ssl_obj_role_t role;
    const SSL_METHOD* (*method)();
  };
  std::set<ssl_obj_hdl_t> handles;
  std::set<SSL_CTX*> contexts;
  for (const Row& row :
       {Row{SSL_OBJ_ROLE_CLIENT, TLS_client_method}, Row{SSL_OBJ_ROLE_SERVER, TLS_server_method}}) {
    ssl_obj_hdl_t hdl = 0;
    ASSERT_EQ(ssl_obj_create(row.role, &hdl), 0);
    EXPECT_NE(hdl, 0u);
    SSL_CTX* ctx = ssl_get_obj_context(hdl);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(SSL_CTX_get_ssl_method(ctx), row.method());
    const int index = index_of(ctx);
    ASSERT_GE(index, 0);
    EXPECT_EQ(g_ssl_ctxt[index].obj_hndl, hdl);
    EXPECT_EQ(g_ssl_ctxt[index].psk_identify_key, nullptr);
    handles.insert(hdl);
    contexts.insert(ctx);
  }
  EXPECT_EQ(handles.size(), 2u);
  EXPECT_EQ(contexts.size(), 2u);
}

TEST(SslUtilTable, BadArgumentsAndUnknownHandles) {
  ssl_obj_hdl_t hdl = 0;
  EXPECT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, nullptr), -2);
  EXPECT_EQ(ssl_obj_create(static_cast<ssl_obj_role_t>(7), &hdl), -2);
  EXPECT_EQ(hdl, 0u);
  ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl), 0);
  for (ssl_obj_hdl_t unknown : {0u, hdl + 1000u}) {
    EXPECT_EQ(ssl_get_obj_context(unknown), nullptr) << unknown;
    EXPECT_EQ(ssl_obj_free(unknown), -2) << unknown;
  }
  EXPECT_EQ(ssl_obj_free(hdl), 0);
  EXPECT_EQ(ssl_obj_free(hdl), -2) << "second free of one handle";
  EXPECT_EQ(ssl_get_obj_context(hdl), nullptr) << "stale handle still resolves";
}

TEST(SslUtilTable, IndexLookupLeavesIndexUntouchedWhenNotFound) {
  kora::SslCtxPtr foreign(SSL_CTX_new(TLS_client_method()));
  for (SSL_CTX* ctx : {static_cast<SSL_CTX*>(nullptr), foreign.get()}) {
    int index = 77;
    EXPECT_EQ(utility_get_ssl_ctxt(ctx, &index), -1);
    EXPECT_EQ(index, 77);
  }
  EXPECT_EQ(utility_get_ssl_ctxt(foreign.get(), nullptr), -1);
}

TEST(SslUtilTable, CertInfoRecordsTheNameBoundedAndRefusesWhatItCannotRecord) {
  ssl_obj_hdl_t hdl = 0;
  ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl), 0);
  SSL_CTX* ctx = ssl_get_obj_context(hdl);
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

// Counts X509 objects destroyed while carrying our ex-data mark.
int g_marked_certs_freed = 0;
void count_free(void*, void* ptr, CRYPTO_EX_DATA*, int, long, void*) {
  if (ptr != nullptr) {
    ++g_marked_certs_freed;
  }
}

TEST(SslUtilTable, FreeReleasesIdentityCertPskTableAndClearsRecord) {
  ssl_obj_hdl_t hdl = 0;
  ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl), 0);
  SSL_CTX* ctx = ssl_get_obj_context(hdl);
  const int index = index_of(ctx);

  const int mark = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, count_free);
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
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_SERVER, &hdl), 0);
  }
  LogCapture log;
  ssl_obj_hdl_t extra = 0;
  EXPECT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &extra), -3);
  ASSERT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(log.messages()[0].text, "ssl_obj_create: all 10 SSL objects are in use\n");
  EXPECT_EQ(log.messages()[0].mask, kError);
  EXPECT_EQ(log.messages()[0].fname, "ssl_util");
  EXPECT_EQ(log.messages()[0].ss_id, 65);

  ASSERT_EQ(ssl_obj_free(handles[4]), 0);
  ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &extra), 0);
  for (ssl_obj_hdl_t old : handles) {
    EXPECT_NE(extra, old) << "handle of a freed object handed out again";
  }
  EXPECT_EQ(ssl_get_obj_context(handles[4]), nullptr);
}

TEST(SslUtilTable, LookupsDoNotTakeTheLockTheStoreHolds) {
  ssl_obj_hdl_t hdl = 0;
  ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl), 0);
  ivra_mutex_lock(&ssl_mutex);  // as the load dispatcher does around its loaders
  SSL_CTX* ctx = ssl_get_obj_context(hdl);
  int index = -1;
  EXPECT_EQ(utility_get_ssl_ctxt(ctx, &index), 0);
  EXPECT_EQ(SSL_set_cert_info(ctx, "held"), 0);
  ivra_mutex_unlock(&ssl_mutex);
  EXPECT_STREQ(g_ssl_ctxt[index].cert, "held");
}

TEST(SslUtilTable, ConcurrentCreateAndFreeKeepHandlesUniqueAndLoseNoSlot) {
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        ssl_obj_hdl_t hdl = 0;
        if (ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl) != 0) {
          ++failures;
          continue;
        }
        SSL_CTX* ctx = ssl_get_obj_context(hdl);
        int index = -1;
        if (ctx == nullptr || utility_get_ssl_ctxt(ctx, &index) != 0 || g_ssl_ctxt[index].obj_hndl != hdl ||
            ssl_obj_free(hdl) != 0) {
          ++failures;
        }
      }
    });
  }
  for (auto& th : threads) {
    th.join();
  }
  EXPECT_EQ(failures.load(), 0);
  std::vector<ssl_obj_hdl_t> handles(SSL_MAX_OBJ);
  for (auto& hdl : handles) {
    EXPECT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl), 0) << "a slot was lost";
  }
}

}  // namespace
