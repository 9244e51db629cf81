// PSK text tables turned into the stored binary table: the stored bytes read back through the
// sealing layer, malformed texts, the tables kept although -1 is returned, size limits, and the
// work buffer's bounds.

#include "storage_fixture.h"

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

}  // namespace kora::test
