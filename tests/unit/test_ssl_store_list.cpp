// Listing stored names: the ten-name cap, what is skipped, what fails the whole listing, and
// the lock and directory handle each path leaves behind.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>

#include "storage_fixture.h"

namespace kora::test {

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
