#include <openssl/ssl.h>

#include "loading_fixture.h"

namespace kora::test {
namespace {

class PskTest : public LoadingTest {
 protected:
  void install(const PskEntries& table) {
    put("t", KORA_NET_SSL_PSK_TABLE_E, psk_table(table));
    ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_PSK_TABLE_E, "t"), 0);
  }
  // Identity one byte longer than declared, as OpenSSL passes it; a sentinel after the psk room.
  unsigned call(const char* hint, unsigned max_id, unsigned max_psk) {
    SslPtr ssl(SSL_new(ctx_));
    identity_.assign(max_id + 1, '\0');
    psk_.assign(max_psk + 1, '\xAA');
    return psk_client_cb(ssl.get(), hint, identity_.data(), max_id,
                         reinterpret_cast<unsigned char*>(psk_.data()), max_psk);
  }
  std::string identity_, psk_;
};

struct WalkRow {
  const char* label;
  PskEntries table;
  const char* hint;
  unsigned max_id, max_psk, result;
  std::string identity, key;      // identity buffer (up to its first zero) and key returned
  std::vector<std::string> logs;  // in order, from the hint message on
};
std::ostream& operator<<(std::ostream& os, const WalkRow& r) { return os << r.label; }

class Walk : public PskTest, public ::testing::WithParamInterface<WalkRow> {};

TEST_P(Walk, ChoosesEntryAndLogs) {
  const WalkRow& row = GetParam();
  install(row.table);
  LogCapture log;
  ASSERT_EQ(call(row.hint, row.max_id, row.max_psk), row.result);
  EXPECT_EQ(std::string(identity_.c_str()), row.identity);
  EXPECT_EQ(psk_.substr(0, row.result), row.key);
  EXPECT_EQ(psk_[row.max_psk], '\xAA') << "byte past the declared key room written";
  if (row.result < row.max_psk) {
    EXPECT_EQ(psk_[row.result], '\0') << "a key shorter than its room is not terminated";
  }
  EXPECT_EQ(log.texts(), row.logs);
}

const std::string kKey256(256, 'K');
WalkRow W(const char* label, PskEntries table, const char* hint, unsigned max_id, unsigned max_psk,
          unsigned result, const char* identity, std::string key, std::vector<std::string> logs) {
  return {label, std::move(table), hint, max_id, max_psk, result, identity, std::move(key), std::move(logs)};
}

const char* const kNullHint = "NULL received PSK identity hint, continuing anyway\n";
INSTANTIATE_TEST_SUITE_P(
    Rows, Walk,
    ::testing::Values(
        W("NullHintTakesFirstThatFits", {{"longer-id", "k1"}, {"id2", "k2"}}, nullptr, 4, 64, 2, "id2", "k2",
          {kNullHint, "Max identify size from openssl:4 > identify size of UE:9, can't use",
           "created identity 'id2'\n"}),
        W("KeyFillingRoomAccepted", {{"id", kKey256}}, nullptr, 16, 256, 256, "id", kKey256,
          {kNullHint, "created identity 'id'\n"}),
        // After a key too big for the room the cursor stays on its length field: the next pass reads
        // 00 05 as an identity length, the key bytes as identity, and the next entry's identity as key.
        W("MisalignedWalkAfterTooBigKey", {{"a", "ABCDE"}, {"bb", "k2"}}, nullptr, 16, 4, 2, "ABCDE", "bb",
          {kNullHint, "created identity 'a'\n", "Max key size from openssl:4 > key size of UE:5, can't use",
           "created identity 'ABCDE'\n"})));

// The replaced table goes back unwiped (kept as shipped); reading, the callback and freeing the
// object leave no key.
TEST_F(PskTest, SecondLoadReplacesTableMissingFileKeepsItFreeWipesIt) {
  const std::string one_key = "0f1e2d3c4b5a69788796a5b4c3d2e1f0", two_key = "22";
  ASSERT_TRUE(heap::watching());
  heap::watch_secrets({one_key});
  install({{"one", one_key}});
  EXPECT_EQ(call("one", 16, 64), 32u);
  EXPECT_EQ(heap::secret_releases(), 0) << "the read buffer or the callback left the key in the heap";
  install({{"two", two_key}});
  EXPECT_EQ(heap::secret_releases(), 1) << "the replaced table was not released";
  EXPECT_EQ(call("two", 16, 16), 2u);
  long live = heap::live_blocks();
  const ssl_psk_identity_fn skip = [](const uint8_t*, size_t, void*) {};
  EXPECT_TRUE(SSL_psk_table_identities("t", skip, nullptr) == 1 && heap::live_blocks() == live &&
              SSL_psk_table_identities("t", nullptr, nullptr) == -2)
      << "the table read for its identities was not released, or no callback was refused";
  const char* before = record().psk_identify_key;
  LogCapture log;
  EXPECT_TRUE(psk_client_cb(SslPtr(SSL_new(ctx_)).get(), "two", identity_.data(), 16, nullptr, 16) == 0 &&
              log.has("PSK is NULL\n", kError));
  EXPECT_EQ(SSL_psk_table_load(hdl_, "/data/data_velto/.ssl/psk_table/absent", 256), -1);
  EXPECT_TRUE(log.has("ERROR: Reading psk info from cert loc failed!! \r\n", kError));
  EXPECT_EQ(record().psk_identify_key, before);
  EXPECT_EQ(SSL_psk_table_load(hdl_, nullptr, 256), -2);
  EXPECT_TRUE(log.has("Filepath for PSK is set NULL\n", kError));
  // The table holds keys: freeing the object hands it back wiped.
  const std::string key = "00112233445566778899aabbccddeeff";
  heap::watch_secrets({key});
  install({{"id", key}});
  live = heap::live_blocks();
  ASSERT_EQ(ssl_obj_free(hdl_), 0);
  hdl_ = 0;
  EXPECT_EQ(heap::secret_releases(), 0) << "the PSK table was freed without being wiped";
  EXPECT_LT(heap::live_blocks(), live) << "the PSK table was not freed";
}

}  // namespace
}  // namespace kora::test
