// Storing and removing credentials: where the sealed bytes land, what a removal takes with it,
// its result codes, and the lock a failed store leaves held.
#include <chrono>
#include <future>
#include <vector>

#include "private_root.h"
#include "storage_fixture.h"

namespace kora::test {

using namespace std::chrono_literals;

kora_Net_SSL_Cert_Type_t kind(int type) { return static_cast<kora_Net_SSL_Cert_Type_t>(type); }

struct StoreCase {
  const char* label;
  int type;
  bool priv_key;
  std::string path;
};
using PutPlacementTest = StorageTable<StoreCase>;

TEST_P(PutPlacementTest, SealsBytesIntoTheSelectedDirectory) {
  const std::string bytes("cred\0bytes\xff", 11);
  ASSERT_EQ(SSL_cert_store("dev", kind(GetParam().type), bytes.data(), 11, GetParam().priv_key), 0);
  EXPECT_EQ(read_stored(GetParam().path), bytes);
  EXPECT_TRUE(store_lock_is_free());
}

const std::string kKey = kStoreRoot + "private_keys/dev";
INSTANTIATE_TEST_SUITE_P(Kinds, PutPlacementTest,
                         ::testing::Values(StoreCase{"certificate", 1, false, kCerts + "dev"},
                                           StoreCase{"ca_list", 2, false, kCaLists + "dev"},
                                           StoreCase{"psk_table", 3, false, kPskTables + "dev"},
                                           StoreCase{"di_cert", 4, false, kKindDirs[4] + "dev"},
                                           StoreCase{"private_key", 1, true, kKey},
                                           StoreCase{"key_of_unknown_kind", 7, true, kKey}),
                         kCaseName);

TEST_F(StorageTest, StoringOverAnExistingNameReplacesItAndKeepsBoundSessions) {
  ASSERT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, "a much longer first version", 27, false), 0);
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

struct RefusalCase {
  const char* label;
  const char* name;
  int type;
  int expected;
  std::string message;
};
using PutRefusalTest = StorageTable<RefusalCase>;

TEST_P(PutRefusalTest, RefusesBeforeTakingTheLock) {
  LogCapture log;
  EXPECT_EQ(SSL_cert_store(GetParam().name, kind(GetParam().type), "abc", 3, false), GetParam().expected);
  ASSERT_FALSE(log.messages().empty());
  expect_message(log.messages().back(), GetParam().message, kError);
  EXPECT_TRUE(store_lock_is_free());
}

const std::string kName64(64, 'n');
INSTANTIATE_TEST_SUITE_P(
    Arguments, PutRefusalTest,
    ::testing::Values(
        RefusalCase{"null_name", nullptr, 1, -2, "SSL_cert_store: Invalid EFS file name \n"},
        RefusalCase{"kind_9", "dev", 9, -1, "SSL_cert_store: Invalid abs path for the file name:dev type:9"},
        RefusalCase{"kind_0", "dev", 0, -1, "SSL_cert_store: Invalid abs path for the file name:dev type:0"},
        RefusalCase{"name_of_64", kName64.c_str(), 2, -1,
                    "SSL_cert_store: Invalid abs path for the file name:" + kName64 + " type:2"}),
    kCaseName);

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
