// PSK table loading and the client callback's walk over the table.
#include <openssl/ssl.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "loading_fixture.h"
#include "log_capture.h"

namespace kora::test {
namespace {

using ::kora::test::operator<<;  // rows print as their labels

class PskTest : public LoadingTest {
 protected:
  void install(const std::string& table) {
    put("t", KORA_NET_SSL_PSK_TABLE_E, table);
    ASSERT_EQ(SSL_cert_load(hdl_, KORA_NET_SSL_PSK_TABLE_E, "t"), 0);
  }
  // Calls the callback the way OpenSSL does: identity zero-filled and one byte longer than
  // declared; psk room guarded by a sentinel byte right after the declared room.
  unsigned call(const char* hint, unsigned max_id, unsigned max_psk) {
    SslPtr ssl(SSL_new(ctx_));
    identity_.assign(max_id + 1, '\0');
    psk_.assign(max_psk + 1, '\xAA');
    return psk_client_cb(ssl.get(), hint, identity_.data(), max_id,
                         reinterpret_cast<unsigned char*>(psk_.data()), max_psk);
  }
  std::string identity_, psk_;
};

const std::string kKey256(256, 'K');
using Table = std::vector<std::pair<std::string, std::string>>;

struct WalkRow {
  const char* label;
  Table table;
  const char* hint;
  unsigned max_id, max_psk;
  unsigned result;
  std::string identity, key;      // identity buffer (up to its first zero) and key returned
  std::vector<std::string> logs;  // in order, from the hint message on
};

class Walk : public PskTest, public ::testing::WithParamInterface<WalkRow> {};

TEST_P(Walk, ChoosesEntryAndLogs) {
  const WalkRow& row = GetParam();
  install(psk_table(row.table));
  LogCapture log;
  ASSERT_EQ(call(row.hint, row.max_id, row.max_psk), row.result);
  EXPECT_EQ(std::string(identity_.c_str()), row.identity);
  EXPECT_EQ(psk_.substr(0, row.result), row.key);
  if (row.result < row.max_psk) {
    EXPECT_EQ(psk_[row.result], row.result > 0 ? '\0' : '\xAA');
  }
  EXPECT_EQ(psk_[row.max_psk], '\xAA') << "byte past the declared key room written";
  EXPECT_EQ(log.texts(), row.logs);
}

WalkRow W(const char* label, Table table, const char* hint, unsigned max_id, unsigned max_psk,
          unsigned result, std::string identity, std::string key, std::vector<std::string> logs) {
  return {label,  std::move(table),    hint,           max_id,         max_psk,
          result, std::move(identity), std::move(key), std::move(logs)};
}

const char* const kNullHint = "NULL received PSK identity hint, continuing anyway\n";
INSTANTIATE_TEST_SUITE_P(
    Rows, Walk,
    ::testing::Values(
        W("NullHintTakesFirstThatFits", {{"longer-id", "k1"}, {"id2", "k2"}, {"id3", "k3"}}, nullptr, 4, 64,
          2, "id2", "k2",
          {kNullHint, "Max identify size from openssl:4 > identify size of UE:9, can't use",
           "created identity 'id2'\n"}),
        W("HintMatchesSecond", {{"a", "k1"}, {"bb", "k2"}}, "bb", 16, 64, 2, "bb", "k2",
          {"Received PSK identity hint 'bb'\n", "created identity 'bb'\n"}),
        W("MatchingButTooLongIsSkipped", {{"abcdef", "k1"}}, "abcdef", 4, 64, 0, "", "",
          {"Received PSK identity hint 'abcdef'\n",
           "Max identify size from openssl:4 > identify size of UE:6, can't use"}),
        W("HintPrefixDoesNotMatch", {{"abc", "k1"}}, "ab", 16, 64, 0, "", "",
          {"Received PSK identity hint 'ab'\n"}),
        W("EmptyTable", {}, "x", 16, 64, 0, "", "", {"Received PSK identity hint 'x'\n"}),
        W("KeyFillingRoomAccepted", {{"id", kKey256}}, nullptr, 16, 256, 256, "id", kKey256,
          {kNullHint, "created identity 'id'\n"}),
        // After a key too big for the room the cursor stays on its length field: the next
        // pass reads 00 05 as an identity length, the key bytes as identity, and the next
        // entry's identity length (00 02) and identity as the key.
        W("MisalignedWalkAfterTooBigKey", {{"a", "ABCDE"}, {"bb", "k2"}}, nullptr, 16, 4, 2, "ABCDE", "bb",
          {kNullHint, "created identity 'a'\n", "Max key size from openssl:4 > key size of UE:5, can't use",
           "created identity 'ABCDE'\n"})),
    LabelName());

TEST_F(PskTest, CallbackRefusesMissingArgumentsAndTable) {
  SslPtr ssl(SSL_new(ctx_));
  char identity[8] = {};
  unsigned char psk[8];
  LogCapture log;
  EXPECT_EQ(psk_client_cb(nullptr, "h", identity, 7, psk, 8), 0u);
  EXPECT_EQ(psk_client_cb(ssl.get(), "h", nullptr, 7, psk, 8), 0u);
  EXPECT_EQ(psk_client_cb(ssl.get(), "h", identity, 7, nullptr, 8), 0u);
  EXPECT_EQ(psk_client_cb(ssl.get(), "h", identity, 7, psk, 8), 0u);  // no table loaded
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"SSL connection in NULL\n", "Identity is NULL \n",
                                                   "PSK is NULL\n", "Received PSK identity hint 'h'\n",
                                                   "Unable to get PSK identify/key\n"}));
}

TEST_F(PskTest, SecondLoadReplacesTableAndMissingFileKeepsIt) {
  install(psk_table({{"one", "11"}}));
  install(psk_table({{"two", "22"}}));
  EXPECT_EQ(call(nullptr, 16, 16), 2u);
  EXPECT_EQ(std::string(identity_.c_str()), "two");

  char missing[512];
  ASSERT_EQ(SSL_cert_get_abs_path("absent", KORA_NET_SSL_PSK_TABLE_E, missing, 512, false), 0);
  const char* before = record().psk_identify_key;
  LogCapture log;
  EXPECT_EQ(SSL_psk_table_load(hdl_, missing, 256), -1);
  EXPECT_TRUE(log.has("ERROR: Reading psk info from cert loc failed!! \r\n", kError));
  EXPECT_EQ(record().psk_identify_key, before);
  EXPECT_EQ(call("two", 16, 16), 2u);
}

TEST_F(PskTest, LoadRefusesNullPathAndUnknownHandle) {
  LogCapture log;
  EXPECT_EQ(SSL_psk_table_load(hdl_, nullptr, 256), -2);
  EXPECT_EQ(SSL_psk_table_load(0x7777, "/data/data_velto/.ssl/psk_table/t", 256), -2);
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{"Filepath for PSK is set NULL\n", "SSL conn object is NULL\n"}));
  EXPECT_EQ(record().psk_identify_key, nullptr);
}

}  // namespace
}  // namespace kora::test
