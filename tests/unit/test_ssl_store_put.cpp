// Storing and removing credentials: where the sealed bytes land, what a removal takes with it,
// its result codes, and the lock a failed store leaves held.
#include <chrono>
#include <future>
#include <tuple>
#include <vector>

#include "private_root.h"
#include "storage_fixture.h"

namespace kora::test {

using namespace std::chrono_literals;

kora_Net_SSL_Cert_Type_t kind(int type) { return static_cast<kora_Net_SSL_Cert_Type_t>(type); }

// Each kind into its directory, a key of any kind into private_keys; a second store replaces
// the file and keeps the bound sessions.
TEST_F(StorageTest, StoresSealedBytesIntoTheSelectedFileAndReplacesIt) {
  const std::string bytes("cred\0bytes\xff", 11), key = kStoreRoot + "private_keys/dev";
  const std::tuple<int, bool, std::string> cases[] = {{1, false, kCerts + "dev"},
                                                      {2, false, kCaLists + "dev"},
                                                      {3, false, kPskTables + "dev"},
                                                      {4, false, kKindDirs[4] + "dev"},
                                                      {1, true, key},
                                                      {7, true, key}};
  for (const auto& [type, priv_key, path] : cases) {
    ASSERT_EQ(SSL_cert_store("dev", kind(type), bytes.data(), 11, priv_key), 0) << path;
    EXPECT_EQ(read_stored(path), bytes) << type;
    EXPECT_TRUE(store_lock_is_free());
  }
  write_plain(kSessions + "dev_1.session");
  ASSERT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, "v2", 2, false), 0);
  EXPECT_EQ(read_stored(kCerts + "dev"), "v2");
  EXPECT_TRUE(file_exists(kSessions + "dev_1.session"));
}

// Removal of "dev": dev's session files always go, other credentials' files always stay.
struct RemoveCase {
  const char* label;
  int type;
  bool stored, key_stored;  // "dev" of this kind, and a private key "dev", exist beforehand
  const void* cert;         // null, or a buffer passed with size 0
  bool priv_key;
  int expected;
  std::vector<std::string> gone, kept;  // under the store root
};
using PutRemoveTest = StorageTable<RemoveCase>;

TEST_P(PutRemoveTest, RemovesFilesAndBoundSessions) {
  const RemoveCase& c = GetParam();
  ASSERT_TRUE(!c.stored || SSL_cert_store("dev", kind(c.type), "credential", 10, false) == 0);
  ASSERT_TRUE(!c.key_stored || SSL_cert_store("dev", kind(c.type), "key", 3, true) == 0);
  ASSERT_EQ(SSL_cert_store("other", kind(c.type), "x", 1, false), 0);
  for (const char* f : {"dev_1.session", "dev_9.timestamp", "other_1.session"}) {
    write_plain(kSessions + f);
  }
  LogCapture log;
  EXPECT_EQ(SSL_cert_store("dev", kind(c.type), c.cert, 0, c.priv_key), c.expected);
  EXPECT_EQ(log.has("Unable to delete the file\n", kError), c.expected != 0);
  EXPECT_TRUE(store_lock_is_free());
  for (const auto& f : c.gone) {
    EXPECT_FALSE(file_exists(kStoreRoot + f)) << f;
  }
  for (const auto& f : c.kept) {
    EXPECT_TRUE(file_exists(kStoreRoot + f)) << f;
  }
  EXPECT_FALSE(file_exists(kSessions + "dev_1.session") || file_exists(kSessions + "dev_9.timestamp"));
  EXPECT_TRUE(file_exists(kSessions + "other_1.session") && file_exists(kKindDirs[c.type] + "other"));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Removal, PutRemoveTest, ::testing::Values(
    RemoveCase{"certificate_and_key", 1, true, true, nullptr, false, 0, {"certs/dev", "private_keys/dev"}, {}},
    RemoveCase{"size_zero_removes", 1, true, true, "bytes", false, 0, {"certs/dev", "private_keys/dev"}, {}},
    // The key file's removal decides the result; the certificate's is dropped.
    RemoveCase{"certificate_without_key", 1, true, false, nullptr, false, -1, {"certs/dev"}, {}},
    // The key path is removed twice; the certificate itself stays.
    RemoveCase{"key_flag_removes_key_twice", 1, true, true, nullptr, true, -1, {"private_keys/dev"}, {"certs/dev"}},
    RemoveCase{"ca_list", 2, true, false, nullptr, false, 0, {"ca_lists/dev"}, {}},
    RemoveCase{"missing_psk_table", 3, false, false, nullptr, false, -1, {}, {}},
    RemoveCase{"di_cert_keeps_key", 4, true, true, nullptr, false, 0, {"di_certs/dev"}, {"private_keys/dev"}}),
    kCaseName);
// clang-format on

TEST_F(StorageTest, StoreRefusesArgumentsBeforeTakingTheLock) {
  const std::string name64(64, 'n'), path_message = "SSL_cert_store: Invalid abs path for the file name:";
  const std::tuple<const char*, int, int, std::string> cases[] = {
      {nullptr, 1, -2, "SSL_cert_store: Invalid EFS file name \n"},
      {"dev", 9, -1, path_message + "dev type:9"},
      {"dev", 0, -1, path_message + "dev type:0"},
      {name64.c_str(), 2, -1, path_message + name64 + " type:2"}};
  for (const auto& [name, type, expected, message] : cases) {
    LogCapture log;
    EXPECT_EQ(SSL_cert_store(name, kind(type), "abc", 3, false), expected) << message;
    ASSERT_FALSE(log.messages().empty());
    expect_message(log.messages().back(), message, kError);
    EXPECT_TRUE(store_lock_is_free());
  }
}

// A failed write leaves ssl_mutex held, so a store from another thread waits; a successful one
// releases it. Runs in a child process: the waiting thread is never joined.
class PutLockTest : public StorageTest, public ::testing::WithParamInterface<bool> {};

TEST_P(PutLockTest, AnotherThreadWaitsOnlyAfterAFailedWrite) {
  const bool fail_write = GetParam();
  EXPECT_EXIT(
      {
        if (fail_write &&
            (!mount_tmpfs(kCerts, "size=64k").empty() || !remount_read_only(kCerts, true).empty())) {
          std::_Exit(3);
        }
        LogCapture log;
        if (SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, "abc", 3, false) != (fail_write ? -1 : 0) ||
            log.has("Failed to write cert file to file location\n", kError) != fail_write) {
          std::_Exit(4);
        }
        auto other = std::async(std::launch::async,
                                [] { return SSL_cert_store("peer", KORA_NET_SSL_CA_LIST_E, "x", 1, false); });
        std::_Exit((other.wait_for(500ms) == std::future_status::timeout) == fail_write ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Outcomes, PutLockTest, ::testing::Bool(), [](const auto& p) {
  return p.param ? "FailedWriteKeepsLock" : "StoredReleasesLock";
});

}  // namespace kora::test
