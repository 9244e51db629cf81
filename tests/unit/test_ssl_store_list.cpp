// Listing stored names: the ten-name cap, what is skipped, what fails the whole listing, and
// the lock and directory handle each path leaves behind.
#include <dirent.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "storage_fixture.h"

namespace kora::test {

int open_descriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  for (; readdir(dir) != nullptr; ++count) {
  }
  closedir(dir);
  return count;
}

template <class Base>
class ListBase : public Base {
 protected:
  void SetUp() override {
    Base::SetUp();
    std::memset(&list_, '#', sizeof list_);
  }
  bool untouched(int slot) const { return std::string(list_.name[slot], 64) == std::string(64, '#'); }
  kora_Net_SSL_Cert_List_t list_;
};
using ListTest = ListBase<StorageTest>;

TEST_F(ListTest, ListsRegularFilesOfOneKindOnly) {
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
}

TEST_F(ListTest, TwelveStoredNamesAreCutToTen) {
  std::set<std::string> stored;
  for (int i = 0; i < 12; ++i) {
    const std::string name = "psk" + std::to_string(i);
    stored.insert(name);
    ASSERT_EQ(SSL_cert_store(name.c_str(), KORA_NET_SSL_PSK_TABLE_E, "t", 1, false), 0);
  }
  const int before = open_descriptors();
  ASSERT_EQ(SSL_cert_name_list(KORA_NET_SSL_PSK_TABLE_E, &list_), 10);
  const std::set<std::string> listed(std::begin(list_.name), std::end(list_.name));
  EXPECT_EQ(listed.size(), 10u);
  EXPECT_TRUE(std::includes(stored.begin(), stored.end(), listed.begin(), listed.end()));
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_TRUE(store_lock_is_free());
}

// Refusals: result, message and level, and the directory handle left open (if any).
struct RefusalCase {
  const char* label;
  int type;
  bool null_list;
  const char* setup;  // "name64": a 64-byte name file; "rmdir": no ca_lists directory
  int expected;
  std::string message;
  uint32_t mask;
  int left_open;
};
using ListRefusalTest = ListBase<StorageTable<RefusalCase>>;

TEST_P(ListRefusalTest, RefusesWithItsCodeAndMessage) {
  const RefusalCase& c = GetParam();
  if (std::strcmp(c.setup, "name64") == 0) {
    ASSERT_EQ(SSL_cert_store("a_valid_name", KORA_NET_SSL_CA_LIST_E, "c", 1, false), 0);
    write_plain(kCaLists + std::string(64, 'z'));
  } else if (std::strcmp(c.setup, "rmdir") == 0) {
    ASSERT_EQ(::rmdir(kCaLists.c_str()), 0);
  }
  const int before = open_descriptors();
  LogCapture log;
  EXPECT_EQ(SSL_cert_name_list(static_cast<kora_Net_SSL_Cert_Type_t>(c.type), c.null_list ? nullptr : &list_),
            c.expected);
  EXPECT_TRUE(log.has(c.message, c.mask)) << c.message;
  EXPECT_EQ(open_descriptors() - before, c.left_open);
  EXPECT_TRUE(store_lock_is_free());
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, ListRefusalTest,
    ::testing::Values(RefusalCase{"null_list", 2, true, "", -2, "Cert List is Null. \n", kError, 0},
                      RefusalCase{"kind_0", 0, false, "", -2, "Invalid Cert Type: 0", kHigh, 0},
                      RefusalCase{"kind_5", 5, false, "", -2, "Invalid Cert Type: 5", kHigh, 0},
                      RefusalCase{"missing_directory", 2, false, "rmdir", -1, "Opening folder failed\n",
                                  kError, 0},
                      RefusalCase{"name_of_64_bytes", 2, false, "name64", -2,
                                  "SSL_cert_load KORA_ERR_INVALID_PARAM \n", kError, 1}),
    kCaseName);

}  // namespace kora::test
