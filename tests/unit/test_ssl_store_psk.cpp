// PSK text tables turned into the stored binary table: the stored bytes read back through the
// sealing layer, every malformed-text outcome, size limits, and the work buffer's bounds.
#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "storage_fixture.h"

namespace kora::test {
namespace {

const std::string kTablePath = kPskTables + "tbl";

std::string be16(size_t n) { return {static_cast<char>((n >> 8) & 0xff), static_cast<char>(n & 0xff)}; }

// The stored form of a table of entries (identity, key bytes), `count` in the header.
std::string table_of(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string t = std::string("\xB7\x00", 2) + be16(entries.size());
  for (const auto& [identity, key] : entries) {
    t += be16(identity.size()) + identity + be16(key.size()) + key;
  }
  return t;
}

std::string bytes(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) {
    s.push_back(static_cast<char>(v));
  }
  return s;
}

class PskTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    std::remove(kTablePath.c_str());
  }
  static int32_t parse(const std::string& text, const char* name = "tbl") {
    kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(text.size()),
                                   reinterpret_cast<uint8_t*>(const_cast<char*>(text.data()))};
    return ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>(name));
  }
};

struct TextCase {
  const char* label;
  std::string text;
  int32_t expected;
  std::optional<std::string> stored;  // nothing: no table may be stored
};

void PrintTo(const TextCase& c, std::ostream* os) { *os << c.label; }

class PskTextTest : public PskTest, public ::testing::WithParamInterface<TextCase> {};

TEST_P(PskTextTest, ResultAndStoredTable) {
  const TextCase& c = GetParam();
  LogCapture log;
  EXPECT_EQ(parse(c.text), c.expected);
  EXPECT_TRUE(log.messages().empty());  // parse failures are silent
  EXPECT_EQ(read_stored(kTablePath), c.stored);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, PskTextTest,
    ::testing::Values(
        TextCase{"one_entry", "id:00112233", 0,
                 bytes({0xB7, 0, 0, 1, 0, 2, 'i', 'd', 0, 4, 0x00, 0x11, 0x22, 0x33})},
        TextCase{"mixed_line_breaks", "a:0A\r\n\r\nb:ff\n", 0, table_of({{"a", "\x0a"}, {"b", "\xff"}})},
        TextCase{"carriage_return_alone_separates", "a:01\rb:02", 0,
                 table_of({{"a", "\x01"}, {"b", "\x02"}})},
        TextCase{"mixed_case_hex", "k:aBcDeF09", 0, table_of({{"k", "\xab\xcd\xef\x09"}})},
        TextCase{"bar_quoted_identity_keeps_colon", "|x:y|:AB", 0, table_of({{"x:y", "\xab"}})},
        TextCase{"bar_inside_identity", "ab|cd|:01", 0, table_of({{"abcd", "\x01"}})},
        TextCase{"bar_after_plain_bytes_keeps_colon", "ab|cd:ef|:00", 0,
                 table_of({{"abcd:ef", std::string(1, '\0')}})},
        TextCase{"leading_line_break_is_identity", "\nid:01", 0, table_of({{"\nid", "\x01"}})},
        TextCase{"identity_bytes_literal", std::string("i \t\0d:01", 8), 0,
                 table_of({{std::string("i \t\0d", 5), "\x01"}})},
        // A lone last digit after complete bytes: entry kept with its bytes, still -1.
        TextCase{"odd_last_key_stored", "id:012", -1, table_of({{"id", "\x01"}})},
        TextCase{"odd_last_key_after_entry", "a:01\nid:012", -1, table_of({{"a", "\x01"}, {"id", "\x01"}})},
        // A single last digit: uncounted entry bytes trail the header, still -1.
        TextCase{"single_last_digit", "id:0", -1, bytes({0xB7, 0, 0, 0, 0, 2, 'i', 'd', 0, 0})},
        TextCase{"odd_key_then_line_break", "id:012\n", -1, std::nullopt},
        TextCase{"empty_key_at_end", "id:", -1, std::nullopt},
        TextCase{"empty_key_before_line_break", "id:\n01", -1, std::nullopt},
        TextCase{"empty_identity", ":01", -1, std::nullopt},
        TextCase{"blank_after_key", "id:01 ", -1, std::nullopt},
        TextCase{"non_hex_digit", "id:0g", -1, std::nullopt},
        TextCase{"non_hex_first_digit", "id:g0", -1, std::nullopt},
        TextCase{"no_separator", "identity", -1, std::nullopt},
        TextCase{"second_entry_unfinished", "a:01\nb", -1, std::nullopt},
        TextCase{"bar_never_closed", "|x:01", -1, std::nullopt},
        TextCase{"closing_bar_last", "|x|", -1, std::nullopt},
        TextCase{"closing_bar_without_colon", "|x:y|AB", -1, std::nullopt},
        TextCase{"bar_quoted_empty_identity", "||:01", -1, std::nullopt}),
    [](const auto& test_case) { return std::string(test_case.param.label); });

// Length limits: identities of 1..65535 bytes, keys of 1..256 bytes.
struct LimitCase {
  const char* label;
  size_t identity_length;
  size_t key_length;
  std::string tail;  // text after the key
  int32_t expected;
  bool stored;
};

void PrintTo(const LimitCase& c, std::ostream* os) { *os << c.label; }

class PskLimitTest : public PskTest, public ::testing::WithParamInterface<LimitCase> {};

TEST_P(PskLimitTest, LengthBounds) {
  const LimitCase& c = GetParam();
  const std::string identity(c.identity_length, 'i');
  std::string key;
  std::string digits;
  for (size_t i = 0; i < c.key_length; ++i) {
    key.push_back(static_cast<char>(i & 0xff));
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned>(i & 0xff));
    digits += pair;
  }
  EXPECT_EQ(parse(identity + ":" + digits + c.tail), c.expected);
  const auto stored = read_stored(kTablePath);
  if (!c.stored) {
    EXPECT_EQ(stored, std::nullopt);
  } else if (c.expected == 0) {
    EXPECT_EQ(stored, table_of({{identity, key}}));
  } else {
    // Refused key running to the end: nothing counted, its bytes trail the header.
    EXPECT_EQ(stored, bytes({0xB7, 0, 0, 0}) + be16(c.identity_length) + identity + bytes({0, 0}) + key);
  }
}

INSTANTIATE_TEST_SUITE_P(Bounds, PskLimitTest,
                         ::testing::Values(LimitCase{"key_of_256", 1, 256, "", 0, true},
                                           LimitCase{"key_of_256_line_break", 1, 256, "\r\n", 0, true},
                                           LimitCase{"key_of_257_at_end", 1, 257, "", -1, true},
                                           LimitCase{"key_of_257_then_more", 1, 257, "\nb:01", -1, false},
                                           LimitCase{"identity_of_65535", 65535, 4, "", 0, true},
                                           LimitCase{"identity_of_65536", 65536, 4, "", -1, false}),
                         [](const auto& test_case) { return std::string(test_case.param.label); });

// Short entries store more bytes than their text has: the table must still come out whole.
TEST_F(PskTest, ManyShortEntriesOutgrowTheirText) {
  for (const char* separator : {"\n", ""}) {
    SCOPED_TRACE(separator);
    std::string text;
    for (int i = 0; i < 1000; ++i) {
      text += std::string("a:00") + (i + 1 < 1000 ? "\n" : separator);
    }
    EXPECT_EQ(parse(text), 0);
    const auto stored = read_stored(kTablePath);
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(stored->size(), 4u + 1000u * 6u);
    EXPECT_EQ(*stored,
              table_of(std::vector<std::pair<std::string, std::string>>(1000, {"a", std::string(1, '\0')})));
  }
}

TEST_F(PskTest, EntryCountWrapsAt65536) {
  std::string text;
  for (int i = 0; i < 65537; ++i) {
    text += "a:00\n";
  }
  EXPECT_EQ(parse(text), 0);
  const auto stored = read_stored(kTablePath);
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(stored->substr(0, 4), bytes({0xB7, 0, 0, 1}));
  EXPECT_EQ(stored->size(), 4u + 65537u * 6u);
}

TEST_F(PskTest, ReplacesAnEarlierTableOfTheSameName) {
  ASSERT_EQ(parse("a:01\nb:02\n"), 0);
  ASSERT_EQ(parse("c:03"), 0);
  EXPECT_EQ(read_stored(kTablePath), table_of({{"c", "\x03"}}));
}

TEST_F(PskTest, StoreFailureIsReported) {
  const std::string name(64, 'n');
  LogCapture log;
  EXPECT_EQ(parse("a:01", name.c_str()), -1);
  EXPECT_FALSE(file_exists(kPskTables + name));
  EXPECT_TRUE(store_lock_is_free());
}

TEST_F(PskTest, MissingArgumentsAreRefused) {
  std::string text = "a:01";
  auto* buf = reinterpret_cast<uint8_t*>(text.data());
  const auto* name = reinterpret_cast<const uint8_t*>("tbl");
  kora_Net_SSL_PSK_Table_t good{4, buf};
  kora_Net_SSL_PSK_Table_t no_buffer{4, nullptr};
  kora_Net_SSL_PSK_Table_t empty{0, buf};
  struct {
    const char* label;
    kora_Net_SSL_PSK_Table_t* table;
    const uint8_t* name;
  } cases[] = {{"null table", nullptr, name},
               {"null buffer", &no_buffer, name},
               {"size zero", &empty, name},
               {"null name", &good, nullptr}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    LogCapture log;
    EXPECT_EQ(ssl_parse_and_store_psktable(c.table, c.name), KORA_ERR_INVALID_PARAM);
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages()[0].text, "Invalid input parameters!");
    EXPECT_EQ(log.messages()[0].mask, kError);
  }
  EXPECT_FALSE(file_exists(kTablePath));
}

}  // namespace
}  // namespace kora::test
