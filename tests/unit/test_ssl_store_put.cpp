// Storing, removing and listing credentials: where the sealed bytes land, what a removal takes
// with it, its result codes, and the lock a failed store leaves held; the listing's ten-name cap,
// what it skips, what fails it whole, and the directory handle each path leaves behind.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>
#include <tuple>

#include "private_root.h"
#include "storage_fixture.h"

namespace kora::test {

kora_Net_SSL_Cert_Type_t kind(int type) { return static_cast<kora_Net_SSL_Cert_Type_t>(type); }
const std::string kKeys = kStoreRoot + "private_keys/";
const std::string kDirs[] = {"", kCerts, kCaLists, kPskTables, kStoreRoot + "di_certs/"};

// A key of any kind goes to private_keys; a second store replaces the file, sessions stay.
// Storing and reading back again keeps no block allocated.
TEST_F(StorageTest, StoresSealedBytesIntoTheSelectedFileAndReplacesIt) {
  const std::string bytes("cred\0bytes\xff", 11);
  const std::tuple<int, bool, std::string> cases[] = {
      {1, false, kCerts + "dev"},   {2, false, kCaLists + "dev"}, {3, false, kPskTables + "dev"},
      {4, false, kDirs[4] + "dev"}, {1, true, kKeys + "dev"},     {7, true, kKeys + "dev"}};
  long live = 0;
  for (int round = 0; round < 2; ++round) {
    for (const auto& [type, priv_key, path] : cases) {
      ASSERT_EQ(SSL_cert_store("dev", kind(type), bytes.data(), 11, priv_key), 0) << path;
      EXPECT_EQ(read_stored(path), bytes) << type;
      ASSERT_TRUE(store_lock_is_free()) << "a stored credential left ssl_mutex held";
    }
    EXPECT_TRUE(round == 0 || heap::live_blocks() == live) << "storing or reading back leaks";
    live = heap::live_blocks();
  }
  write_plain(kSessions + "dev_1.session");
  ASSERT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, "v2", 2, false), 0);
  EXPECT_TRUE(read_stored(kCerts + "dev") == "v2" && exists(kSessions + "dev_1.session"));
}

// Removal of "dev": dev's session files always go, other credentials' files always stay. For a
// certificate the key file's removal decides the result; the key flag removes the key twice.
struct RemoveCase {
  const char* label;
  int type;
  bool key_stored;   // a private key "dev" exists beforehand
  const void* cert;  // null, or a buffer passed with size 0
  bool priv_key;
  int expected;
  bool file_left, key_left;
};
class PutRemoveTest : public StorageTest, public ::testing::WithParamInterface<RemoveCase> {};

TEST_P(PutRemoveTest, RemovesFilesAndBoundSessions) {
  const RemoveCase& c = GetParam();
  ASSERT_EQ(SSL_cert_store("dev", kind(c.type), "credential", 10, false), 0);
  ASSERT_TRUE(!c.key_stored || SSL_cert_store("dev", kind(c.type), "key", 3, true) == 0);
  ASSERT_EQ(SSL_cert_store("other", kind(c.type), "x", 1, false), 0);
  for (const char* f : {"dev_1.session", "dev_9.timestamp", "other_1.session"}) {
    write_plain(kSessions + f);
  }
  LogCapture log;
  EXPECT_EQ(SSL_cert_store("dev", kind(c.type), c.cert, 0, c.priv_key), c.expected);
  EXPECT_EQ(log.has("Unable to delete the file\n", kError), c.expected != 0);
  EXPECT_TRUE(store_lock_is_free());
  EXPECT_EQ(exists(kDirs[c.type] + "dev"), c.file_left);
  EXPECT_EQ(exists(kKeys + "dev"), c.key_left);
  EXPECT_FALSE(exists(kSessions + "dev_1.session") || exists(kSessions + "dev_9.timestamp"));
  EXPECT_TRUE(exists(kSessions + "other_1.session") && exists(kDirs[c.type] + "other"));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Removal, PutRemoveTest, ::testing::Values(
    RemoveCase{"certificate_and_key", 1, true, nullptr, false, 0, false, false},
    RemoveCase{"size_zero_removes", 1, true, "bytes", false, 0, false, false},
    RemoveCase{"certificate_without_key", 1, false, nullptr, false, -1, false, false},
    RemoveCase{"key_flag_removes_key_twice", 1, true, nullptr, true, -1, true, false},
    RemoveCase{"di_cert_keeps_key", 4, true, nullptr, false, 0, false, true}),
    [](const auto& p) { return std::string(p.param.label); });
// clang-format on

TEST_F(StorageTest, StoreRefusesArgumentsBeforeTakingTheLock) {
  const std::tuple<const char*, int, int, std::string> cases[] = {
      {nullptr, 1, -2, "SSL_cert_store: Invalid EFS file name \n"},
      {"dev", 9, -1, "SSL_cert_store: Invalid abs path for the file name:dev type:9"}};
  for (const auto& [name, type, expected, message] : cases) {
    LogCapture log;
    EXPECT_EQ(SSL_cert_store(name, kind(type), "abc", 3, false), expected) << message;
    EXPECT_TRUE(log.has(message, kError) && store_lock_is_free()) << message;
  }
}

// A failed write is reported at each step, writes nothing and leaves ssl_mutex held, so every
// later store waits for it.
TEST_F(StorageTest, FailedWriteLeavesTheLockHeld) {
  ASSERT_EQ(mount_tmpfs(kCerts, "size=64k"), "");
  ASSERT_EQ(remount_read_only(kCerts), "");
  LogCapture log;
  EXPECT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, "abc", 3, false), -1);
  EXPECT_TRUE(log.has("Error in opening " + kCerts + "dev\n", kError) &&
              log.has("SSL_cert_store: storing Encrypted certificate in EFS failed!\n", kError) &&
              log.has("Failed to write cert file to file location\n", kError));
  EXPECT_FALSE(exists(kCerts + "dev") || store_lock_is_free());
  lock_held_on_purpose_ = true;
}

long open_descriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

class ListTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    std::memset(&list_, '#', sizeof list_);
  }
  bool untouched(int slot) const { return std::string(list_.name[slot], 64) == std::string(64, '#'); }
  kora_Net_SSL_Cert_List_t list_;
};

TEST_F(ListTest, ListsRegularFilesOfOneKindOnlyCutToTen) {
  EXPECT_EQ(SSL_cert_name_list(KORA_NET_SSL_CERTIFICATE_E, &list_), 0);
  EXPECT_TRUE(untouched(0));
  ASSERT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, "c", 1, false), 0);
  ASSERT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, "k", 1, true), 0);  // never listed
  ASSERT_EQ(SSL_cert_store("roots", KORA_NET_SSL_CA_LIST_E, "r", 1, false), 0);
  ASSERT_EQ(::mkdir((kCerts + "subdir").c_str(), 0755), 0);
  const std::string name63(63, 'x');
  write_plain(kCerts + name63);
  LogCapture log;
  ASSERT_EQ(SSL_cert_name_list(KORA_NET_SSL_CERTIFICATE_E, &list_), 2);
  EXPECT_EQ((std::set<std::string>{list_.name[0], list_.name[1]}), (std::set<std::string>{"dev", name63}));
  EXPECT_TRUE(untouched(2));
  EXPECT_TRUE(log.has("SSL_cert_load filepath " + std::string(list_.name[1]) + " num_files1", kHigh));
  // Twelve stored names are cut to ten.
  std::set<std::string> stored;
  for (int i = 0; i < 12; ++i) {
    const std::string name = "psk" + std::to_string(i);
    ASSERT_EQ(SSL_cert_store(name.c_str(), KORA_NET_SSL_PSK_TABLE_E, "t", 1, false), 0);
    stored.insert(name);
  }
  const long before = open_descriptors();
  ASSERT_EQ(SSL_cert_name_list(KORA_NET_SSL_PSK_TABLE_E, &list_), 10);
  const std::set<std::string> listed(std::begin(list_.name), std::end(list_.name));
  EXPECT_EQ(listed.size(), 10u);
  EXPECT_TRUE(std::includes(stored.begin(), stored.end(), listed.begin(), listed.end()));
  EXPECT_TRUE(open_descriptors() == before && store_lock_is_free());
}

// Refusals: result, message and level, and the directory handle left open (if any).
TEST_F(ListTest, RefusesWithItsCodeAndMessage) {
  ASSERT_EQ(SSL_cert_store("a_valid_name", KORA_NET_SSL_CA_LIST_E, "c", 1, false), 0);
  write_plain(kCaLists + std::string(64, 'z'));
  ASSERT_EQ(::rmdir((kStoreRoot + "di_certs/").c_str()), 0);
  const struct {
    int type;
    kora_Net_SSL_Cert_List_t* list;
    int expected;
    const char* message;
    uint32_t mask;
    int left_open;
  } cases[] = {{2, nullptr, -2, "Cert List is Null. \n", kError, 0},
               {5, &list_, -2, "Invalid Cert Type: 5", kHigh, 0},
               {4, &list_, -1, "Opening folder failed\n", kError, 0},
               {2, &list_, -2, "SSL_cert_load KORA_ERR_INVALID_PARAM \n", kError, 1}};
  for (const auto& c : cases) {
    const long before = open_descriptors();
    LogCapture log;
    EXPECT_EQ(SSL_cert_name_list(static_cast<kora_Net_SSL_Cert_Type_t>(c.type), c.list), c.expected);
    EXPECT_TRUE(log.has(c.message, c.mask) && store_lock_is_free()) << c.message;
    EXPECT_EQ(open_descriptors() - before, c.left_open) << c.message;
  }
}

}  // namespace kora::test
