// The table of SSL objects: handles, lookups, the recorded credential name, what freeing an
// object releases, a full table, and lookups made while another caller holds ssl_mutex.
#include <gtest/gtest.h>
#include <malloc.h>
#include <openssl/err.h>
#include <sys/mman.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "heap_watch.h"
#include "kora_certgen.h"
#include "loading_fixture.h"
#include "log_capture.h"
#include "ssl_util.h"

// SSL_new refused once, as under memory pressure (linked with --wrap=SSL_new).
bool g_refuse_ssl_new = false;
extern "C" SSL* __real_SSL_new(SSL_CTX* ctx);
extern "C" SSL* __wrap_SSL_new(SSL_CTX* ctx) {
  if (std::exchange(g_refuse_ssl_new, false)) {
    ERR_raise(ERR_LIB_SSL, ERR_R_MALLOC_FAILURE);  // as OpenSSL's own refusal queues
    return nullptr;
  }
  return __real_SSL_new(ctx);
}

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
  ASSERT_TRUE(client == 1 && server == 2) << "handles (which log lines name) counted from 1";
  for (const auto& [hdl, method] :
       {std::pair{client, TLS_client_method()}, std::pair{server, TLS_server_method()}}) {
    SSL_CTX* ctx = ssl_get_obj_context(hdl);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(SSL_CTX_get_ssl_method(ctx), method);
    ASSERT_GE(index_of(ctx), 0);
    EXPECT_EQ(g_ssl_ctxt[index_of(ctx)].obj_hndl, hdl);
  }
  EXPECT_EQ(ssl_conn_write(client, "x", 1), SSL_UTIL_ERR_INVALID) << "a write without a connection";
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
  char* table = g_ssl_ctxt[index].psk_identify_key = static_cast<char*>(std::malloc(64));
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
  EXPECT_EQ(log.messages().size(), 1u);
  EXPECT_TRUE(log.has("ssl_obj_create: all 10 SSL objects are in use\n", kora::test::kError));
  // Lookups that miss walk the whole full table and stop at its end (AddressSanitizer sees more).
  SSL_CTX* foreign = SSL_CTX_new(TLS_method());
  int index = -1;
  EXPECT_EQ(utility_get_ssl_ctxt(foreign, &index), -1);
  EXPECT_EQ(utility_get_ssl_ctxt(nullptr, &index), -1);
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
                                                          {std::string("\x30\x82\x01\x00", 4) + pad, 0},
                                                          {"\x30\x81\x7f" + pad, 0},
                                                          {"\x30\x03\x05", 0},
                                                          {"", 0}}) {
    EXPECT_EQ(openssl_IsDerFormat(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), der)
        << testing::PrintToString(bytes.substr(0, 4));
  }
  EXPECT_EQ(openssl_IsDerFormat(nullptr, 4), 0);
  // A blank byte at the very end of a mapping: reading on past it faults.
  void* map = ::mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  uint8_t* end = static_cast<uint8_t*>(map) + 4095;
  *end = ' ';
  ASSERT_EQ(::mprotect(end + 1, 4096, PROT_NONE), 0);
  EXPECT_EQ(openssl_IsDerFormat(end, 1), 0);
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

// A refused call says why, in its own name; a refused cipher list adds OpenSSL's error.
TEST(SslUtilTable, RefusalsAreLoggedInTheCallersName) {
  const ssl_obj_hdl_t live = create(), stale = 0xdead;
  const std::string longer(300, 'n'), unknown = ": unknown handle 57005\n";
  constexpr int kInvalid = SSL_UTIL_ERR_INVALID, kFailed = SSL_UTIL_ERR_FAILED;
  const std::tuple<std::string, int, std::function<int()>> calls[] = {
      {"ssl_conn_open" + unknown, kInvalid, [&] { return ssl_conn_open(stale, 0); }},
      {"ssl_session_set_resume" + unknown, kInvalid, [&] { return ssl_session_set_resume(stale, "s"); }},
      {"ssl_obj_set_protocol_bounds" + unknown, kInvalid,
       [&] { return ssl_obj_set_protocol_bounds(stale, 0, 0); }},
      {"ssl_obj_set_ciphers" + unknown, kInvalid,
       [&] { return ssl_obj_set_ciphers(stale, nullptr, nullptr); }},
      {"ssl_obj_set_verify" + unknown, kInvalid, [&] { return ssl_obj_set_verify(stale, SSL_VERIFY_NONE); }},
      {"ssl_obj_free" + unknown, kInvalid, [&] { return ssl_obj_free(stale); }},
      {"ssl_obj_set_server_name" + unknown, kInvalid, [&] { return ssl_obj_set_server_name(stale, "h"); }},
      {"ssl_obj_set_protocol_bounds: unsupported bounds 0x303..0x999\n", kInvalid,
       [&] { return ssl_obj_set_protocol_bounds(live, TLS1_2_VERSION, 0x999); }},
      {"ssl_obj_set_psk_identity: value too long\n", kInvalid,
       [&] { return ssl_obj_set_psk_identity(live, longer.c_str()); }},
      {"ssl_obj_set_ciphers: cipher list refused: NOPE\n", kFailed,
       [&] { return ssl_obj_set_ciphers(live, "NOPE", nullptr); }},
      {"ssl_obj_set_ciphers: TLS 1.3 suites refused: TLS_BOGUS\n", kFailed,
       [&] { return ssl_obj_set_ciphers(live, nullptr, "TLS_BOGUS"); }},
      {"ssl_session_save: no connection or no credential name on handle " + std::to_string(live) + "\n",
       kInvalid, [&] { return ssl_session_save(live, nullptr, 0); }},
      {"ssl_conn_open: SSL_new failed\n", SSL_UTIL_ERR_NO_RESOURCE,
       [&] { return g_refuse_ssl_new = true, ssl_conn_open(live, 0); }},
  };
  for (const auto& [said, rc, call] : calls) {
    kora::test::LogCapture log;
    EXPECT_EQ(call(), rc) << said;
    ASSERT_EQ(log.texts().size(), rc == kInvalid ? 1u : 2u) << said;  // OpenSSL's error after a failure
    EXPECT_EQ(log.texts()[0], said);
  }
}

// Setting ciphers again and again keeps no memory (the suite names are split into a list).
TEST(SslUtilTable, RepeatedCipherSettingsHoldNoMemory) {
  const ssl_obj_hdl_t hdl = create();
  const auto set_times = [&](int times) {
    for (int i = 0; i < times; ++i) {
      ASSERT_EQ(ssl_obj_set_ciphers(hdl, nullptr, "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384"), 0);
    }
  };
  set_times(300);  // OpenSSL's caches fill within the first two hundred
  const size_t in_use = mallinfo2().uordblks;
  set_times(100);
  // A kept suite list is three blocks a call (nearly 10 KiB here); the heap watch's own
  // bookkeeping may move a few hundred bytes.
  EXPECT_LT(mallinfo2().uordblks, in_use + 2048) << "memory kept by every call";
}

// The rest of a stored PEM file goes onto the context as the chain of its certificate, with a
// count; a certificate the application installed itself, under a name with no file or with a file
// of another certificate, adds nothing and says nothing; a chain the context's security level
// refuses is dropped whole.
class StoredChain : public kora::test::LoadingTest {};

TEST_F(StoredChain, IntermediatesAreCountedOrRefusedWhole) {
  using kora::certgen::Credential;
  const auto issue = [](const char* cn, const Credential& by, bool ca = true) {
    return kora::certgen::make_signed({{{"CN", cn}}, {}, false, ca}, by);
  };
  const Credential root = kora::certgen::make_self_signed({{{"CN", "root"}}, {}, false, true});
  // The last intermediate's RSA-2048 key falls short of security level 3, after mid2 was added.
  const Credential mid =
      kora::certgen::make_signed({{{"CN", "mid"}}, {}, false, true, kora::certgen::KeyType::kRsa2048}, root);
  const Credential mid2 = issue("mid2", mid), leaf = issue("leaf", mid2, false);
  const std::string one = leaf.cert_pem(), three = one + mid2.cert_pem() + mid.cert_pem();
  const struct {
    const char* name;
    std::string stored;  // "": installed by the application (not the leaf of a file of that name)
    int level;           // the context's security level once loaded
    int chain;
    std::string said;
  } cases[] = {
      {"app", "", 1, 0, ""},
      {"lone", one, 1, 0, ""},
      {"two", one + mid2.cert_pem(), 1, 1, "SSL_set_cert_info: 1 chain certificates sent with two\n"},
      {"three", three, 1, 2, "SSL_set_cert_info: 2 chain certificates sent with three\n"},
      {"psk", three, 1, 2, ""},  // with a PSK table the chain is left as the load set it
      {"three", "", 1, 0, ""},   // another certificate over a stored name: not its chain
      {"weak", three, 3, 0, "SSL_set_cert_info: chain of weak could not be added\n"},
  };
  for (const auto& c : cases) {
    if (c.stored.empty()) {
      ASSERT_EQ(SSL_CTX_use_certificate(ctx_, mid.cert.get()), 1);
    } else {
      put(c.name, KORA_NET_SSL_CERTIFICATE_E, c.stored);
      put(c.name, KORA_NET_SSL_CERTIFICATE_E, leaf.key_pem(), true);
      ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_CERTIFICATE_E, c.name), 0) << c.name;
    }
    SSL_CTX_set_security_level(ctx_, c.level);
    kora::test::LogCapture log;
    char psk_table[1];
    record().psk_identify_key = std::string(c.name) == "psk" ? psk_table : nullptr;
    ASSERT_EQ(SSL_set_cert_info(ctx_, c.name), 0);
    record().psk_identify_key = nullptr;
    STACK_OF(X509)* chain = nullptr;
    ASSERT_EQ(SSL_CTX_get0_chain_certs(ctx_, &chain), 1);
    EXPECT_EQ(chain == nullptr ? 0 : sk_X509_num(chain), c.chain) << c.name;
    std::vector<std::string> said;  // the object layer's lines only, not the store's
    for (const kora::test::LoggedMessage& m : log.messages()) {
      if (m.fname == "ssl_util") {
        said.push_back(m.text);
      }
    }
    EXPECT_EQ(said.empty() ? "" : said[0], c.said) << c.name;
    EXPECT_EQ(said.size(), c.said.empty() ? 0u : c.level == 3 ? 2u : 1u) << "OpenSSL's reason for " << c.name;
  }
}

}  // namespace
