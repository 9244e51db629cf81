// PSK text tables turned into the stored binary table: the stored bytes read back through the
// sealing layer, malformed texts, the tables kept although -1 is returned, size limits, and the
// work buffer's bounds. Then the table loaded onto an SSL object: the client callback's walk
// through it, a replaced table, and the table's release.
#include <openssl/ssl.h>

#include "loading_fixture.h"

namespace kora::test {

const std::string kTablePath = kPskTables + "tbl";

int32_t parse(const std::string& text, const char* name = "tbl") {
  kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(text.size()),
                                 reinterpret_cast<uint8_t*>(const_cast<char*>(text.data()))};
  return ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>(name));
}

struct TextCase {
  const char* label;
  std::string text;
  int32_t expected;
  std::optional<std::string> stored;  // nothing: no table may be stored
};
class PskTextTest : public StorageTest, public ::testing::WithParamInterface<TextCase> {};

TEST_P(PskTextTest, ResultAndStoredTable) {
  LogCapture log;
  EXPECT_EQ(parse(GetParam().text), GetParam().expected);
  EXPECT_TRUE(log.messages().empty());  // parse failures are silent
  EXPECT_EQ(read_stored(kTablePath), GetParam().stored);
}

const std::optional<std::string> kNone;
const std::string kId(65535, 'i'), kKey256(512, 'a'), kKey257(514, 'a'), kAs256(256, '\xaa'),
    kAs257(257, '\xaa');
// clang-format off
INSTANTIATE_TEST_SUITE_P(Texts, PskTextTest, ::testing::Values(
    TextCase{"one_entry", "id:00112233", 0, std::string("\xB7\0\0\x01\0\x02id\0\x04\x00\x11\x22\x33", 14)},
    TextCase{"mixed_line_breaks", "a:0A\r\n\r\nb:ff\n", 0, psk_table({{"a", "\x0a"}, {"b", "\xff"}})},
    TextCase{"bar_quoted_identity_keeps_colon", "|x:y|:AB", 0, psk_table({{"x:y", "\xab"}})},
    TextCase{"bar_after_plain_bytes", "ab|cd:ef|:00", 0, psk_table({{"abcd:ef", std::string(1, '\0')}})},
    TextCase{"leading_line_break_is_identity", "\nid:01", 0, psk_table({{"\nid", "\x01"}})},
    TextCase{"key_of_256", "i:" + kKey256, 0, psk_table({{"i", kAs256}})},
    TextCase{"identity_of_65535", kId + ":01", 0, psk_table({{kId, "\x01"}})},
    // A lone last digit after complete bytes: the entry is kept with them, still -1.
    TextCase{"odd_last_key_stored", "a:01\nid:012", -1, psk_table({{"a", "\x01"}, {"id", "\x01"}})},
    // A malformed last key at the end: the uncounted entry's bytes trail the header, still -1.
    TextCase{"single_last_digit", "id:0", -1, std::string("\xB7\0\0\0\0\x02id\0\0", 10)},
    TextCase{"key_of_257_at_end", "i:" + kKey257, -1, psk_table({}) + be16(1) + "i" + be16(0) + kAs257},
    TextCase{"identity_of_65536", kId + "i:01", -1, kNone},
    TextCase{"odd_key_then_line_break", "id:012\n", -1, kNone},
    TextCase{"empty_identity", ":01", -1, kNone},
    TextCase{"second_bar_not_before_colon", "|a|b:00", -1, kNone},
    TextCase{"nul_byte_is_no_hex_digit", std::string("id:0\0", 5), -1, kNone}),
    [](const auto& p) { return std::string(p.param.label); });
// clang-format on

// "a:00\n" stores 6 bytes from 5 of text: the table must come out whole; the count wraps.
TEST_F(StorageTest, PskEntriesThatOutgrowTheirTextStoreFailureAndMissingArguments) {
  for (const size_t count : {1000u, 65537u}) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
      text += "a:00\n";
    }
    EXPECT_EQ(parse(text), 0);
    EXPECT_EQ(read_stored(kTablePath), psk_table(PskEntries(count, {"a", std::string(1, '\0')}))) << count;
  }
  ASSERT_TRUE(ssl_store_delete_file(kTablePath.c_str()) == 0 && store_lock_is_free());
  EXPECT_TRUE(parse("a:01", std::string(64, 'n').c_str()) == -1 && store_lock_is_free());
  std::string text = "a:01";
  auto* bytes = reinterpret_cast<uint8_t*>(text.data());
  kora_Net_SSL_PSK_Table_t good{4, bytes}, empty{0, bytes}, no_text{4, nullptr};
  for (const auto& [table, out_file] : {std::pair{&good, static_cast<const char*>(nullptr)},
                                        {&empty, "tbl"},
                                        {&no_text, "tbl"},
                                        {nullptr, "tbl"}}) {
    LogCapture log;
    EXPECT_EQ(ssl_parse_and_store_psktable(table, reinterpret_cast<const uint8_t*>(out_file)), -2);
    EXPECT_TRUE(log.texts().size() == 1 && log.has("Invalid input parameters!", kError));
  }
  EXPECT_FALSE(exists(kTablePath));
}

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

const std::string kKeyOf256(256, 'K');
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
        W("KeyFillingRoomAccepted", {{"id", kKeyOf256}}, nullptr, 16, 256, 256, "id", kKeyOf256,
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

}  // namespace kora::test
