// PSK text tables turned into the stored binary table: the stored bytes read back through the
// sealing layer, every malformed-text outcome, size limits, and the work buffer's bounds.
#include <utility>
#include <vector>

#include "storage_fixture.h"

namespace kora::test {

const std::string kTablePath = kPskTables + "tbl";
using Entries = std::vector<std::pair<std::string, std::string>>;

std::string be16(size_t n) { return {static_cast<char>((n >> 8) & 0xff), static_cast<char>(n & 0xff)}; }

// The stored form of (identity, key bytes) entries; the count is kept modulo 65536.
std::string table_of(const Entries& entries) {
  std::string t = std::string("\xB7\x00", 2) + be16(entries.size());
  for (const auto& [identity, key] : entries) {
    t += be16(identity.size()) + identity + be16(key.size()) + key;
  }
  return t;
}

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
using PskTextTest = StorageTable<TextCase>;

TEST_P(PskTextTest, ResultAndStoredTable) {
  LogCapture log;
  EXPECT_EQ(parse(GetParam().text), GetParam().expected);
  EXPECT_TRUE(log.messages().empty());  // parse failures are silent
  EXPECT_EQ(read_stored(kTablePath), GetParam().stored);
}

const std::optional<std::string> kNone;
// clang-format off
INSTANTIATE_TEST_SUITE_P(Texts, PskTextTest, ::testing::Values(
    TextCase{"one_entry", "id:00112233", 0, std::string("\xB7\0\0\x01\0\x02id\0\x04\x00\x11\x22\x33", 14)},
    TextCase{"mixed_line_breaks", "a:0A\r\n\r\nb:ff\n", 0, table_of({{"a", "\x0a"}, {"b", "\xff"}})},
    TextCase{"carriage_return_separates", "a:01\rb:02", 0, table_of({{"a", "\x01"}, {"b", "\x02"}})},
    TextCase{"mixed_case_hex", "k:aBcDeF09", 0, table_of({{"k", "\xab\xcd\xef\x09"}})},
    TextCase{"bar_quoted_identity_keeps_colon", "|x:y|:AB", 0, table_of({{"x:y", "\xab"}})},
    TextCase{"bar_inside_identity", "ab|cd|:01", 0, table_of({{"abcd", "\x01"}})},
    TextCase{"bar_after_plain_bytes", "ab|cd:ef|:00", 0, table_of({{"abcd:ef", std::string(1, '\0')}})},
    TextCase{"leading_line_break_is_identity", "\nid:01", 0, table_of({{"\nid", "\x01"}})},
    TextCase{"identity_bytes_literal", std::string("i \t\0d:01", 8), 0, table_of({{std::string("i \t\0d", 5), "\x01"}})},
    // A lone last digit after complete bytes: the entry is kept with them, still -1.
    TextCase{"odd_last_key_stored", "a:01\nid:012", -1, table_of({{"a", "\x01"}, {"id", "\x01"}})},
    // A single last digit: the uncounted entry's bytes trail the header, still -1.
    TextCase{"single_last_digit", "id:0", -1, std::string("\xB7\0\0\0\0\x02id\0\0", 10)},
    TextCase{"odd_key_then_line_break", "id:012\n", -1, kNone},
    TextCase{"empty_key_at_end", "id:", -1, kNone}, TextCase{"empty_key_then_more", "id:\n01", -1, kNone},
    TextCase{"empty_identity", ":01", -1, kNone}, TextCase{"blank_after_key", "id:01 ", -1, kNone},
    TextCase{"non_hex_digit", "id:0g", -1, kNone}, TextCase{"non_hex_first_digit", "id:g0", -1, kNone},
    TextCase{"no_separator", "identity", -1, kNone}, TextCase{"second_entry_unfinished", "a:01\nb", -1, kNone},
    TextCase{"bar_never_closed", "|x:01", -1, kNone}, TextCase{"closing_bar_last", "|x|", -1, kNone},
    TextCase{"closing_bar_without_colon", "|x:y|AB", -1, kNone},
    TextCase{"bar_quoted_empty_identity", "||:01", -1, kNone}),
    kCaseName);
// clang-format on

// Identities of 1..65535 bytes, keys of 1..256 bytes.
struct LimitCase {
  const char* label;
  size_t identity_length, key_length;
  std::string tail;  // text after the key
  int32_t expected;
  bool stored;
};
using PskLimitTest = StorageTable<LimitCase>;

TEST_P(PskLimitTest, LengthBounds) {
  const LimitCase& c = GetParam();
  const std::string identity(c.identity_length, 'i');
  std::string key, digits;
  for (size_t i = 0; i < c.key_length; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned>(i & 0xff));
    key.push_back(static_cast<char>(i & 0xff));
    digits += pair;
  }
  EXPECT_EQ(parse(identity + ":" + digits + c.tail), c.expected);
  std::optional<std::string> expected;
  if (c.stored) {  // a refused key running to the end leaves its entry uncounted after the header
    expected = c.expected == 0 ? table_of({{identity, key}})
                               : table_of({}) + be16(c.identity_length) + identity + be16(0) + key;
  }
  EXPECT_EQ(read_stored(kTablePath), expected);
}

INSTANTIATE_TEST_SUITE_P(Bounds, PskLimitTest,
                         ::testing::Values(LimitCase{"key_of_256", 1, 256, "", 0, true},
                                           LimitCase{"key_of_256_line_break", 1, 256, "\r\n", 0, true},
                                           LimitCase{"key_of_257_at_end", 1, 257, "", -1, true},
                                           LimitCase{"key_of_257_then_more", 1, 257, "\nb:01", -1, false},
                                           LimitCase{"identity_of_65535", 65535, 4, "", 0, true},
                                           LimitCase{"identity_of_65536", 65536, 4, "", -1, false}),
                         kCaseName);

// "a:00\n" stores 6 bytes from 5 of text: the table must come out whole; the count wraps.
TEST_F(StorageTest, PskEntriesThatOutgrowTheirText) {
  for (const size_t count : {1000u, 65537u}) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
      text += "a:00\n";
    }
    EXPECT_EQ(parse(text), 0);
    EXPECT_EQ(read_stored(kTablePath), table_of(Entries(count, {"a", std::string(1, '\0')}))) << count;
  }
}

TEST_F(StorageTest, PskStoreFailureAndMissingArguments) {
  const std::string name(64, 'n');
  EXPECT_EQ(parse("a:01", name.c_str()), -1);
  EXPECT_FALSE(file_exists(kPskTables + name));
  EXPECT_TRUE(store_lock_is_free());

  std::string text = "a:01";
  auto* buf = reinterpret_cast<uint8_t*>(text.data());
  const auto* tbl = reinterpret_cast<const uint8_t*>("tbl");
  kora_Net_SSL_PSK_Table_t good{4, buf}, no_buffer{4, nullptr}, empty{0, buf};
  const std::pair<kora_Net_SSL_PSK_Table_t*, const uint8_t*> cases[] = {
      {nullptr, tbl}, {&no_buffer, tbl}, {&empty, tbl}, {&good, nullptr}};
  for (const auto& [table, out_file] : cases) {
    LogCapture log;
    EXPECT_EQ(ssl_parse_and_store_psktable(table, out_file), KORA_ERR_INVALID_PARAM);
    ASSERT_EQ(log.messages().size(), 1u);
    expect_message(log.messages()[0], "Invalid input parameters!", kError);
  }
  EXPECT_FALSE(file_exists(kTablePath));
}

}  // namespace kora::test
