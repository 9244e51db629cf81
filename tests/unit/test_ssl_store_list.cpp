// Listing stored names: the ten-name cap, what is skipped, what fails the whole listing, and
// the lock and directory handle each path leaves behind.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <set>
#include <string>

#include "log_capture.h"
#include "storage_fixture.h"

namespace kora::test {
namespace {

int open_descriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (dir != nullptr && readdir(dir) != nullptr) {
    ++count;
  }
  if (dir != nullptr) {
    closedir(dir);
  }
  return count;
}

class ListTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    std::memset(&list_, '#', sizeof list_);
  }
  bool slot_untouched(int slot) const {
    return std::all_of(std::begin(list_.name[slot]), std::end(list_.name[slot]),
                       [](char c) { return c == '#'; });
  }
  kora_Net_SSL_Cert_List_t list_;
};

TEST_F(ListTest, EmptyDirectoryListsNothing) {
  EXPECT_EQ(SSL_cert_name_list(KORA_NET_SSL_DI_CERT_E, &list_), 0);
  for (int slot = 0; slot < 10; ++slot) {
    EXPECT_TRUE(slot_untouched(slot)) << slot;
  }
}

TEST_F(ListTest, ListsStoredNamesOfOneKindOnly) {
  ASSERT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, "c", 1, false), 0);
  ASSERT_EQ(SSL_cert_store("dev", KORA_NET_SSL_CERTIFICATE_E, "k", 1, true), 0);
  ASSERT_EQ(SSL_cert_store("roots", KORA_NET_SSL_CA_LIST_E, "r", 1, false), 0);
  ASSERT_EQ(::mkdir((kCerts + "subdir").c_str(), 0755), 0);
  const std::string long_name(63, 'x');
  write_plain(kCerts + long_name);

  LogCapture log;
  ASSERT_EQ(SSL_cert_name_list(KORA_NET_SSL_CERTIFICATE_E, &list_), 2);
  const std::set<std::string> names{list_.name[0], list_.name[1]};
  EXPECT_EQ(names, (std::set<std::string>{"dev", long_name}));
  EXPECT_TRUE(slot_untouched(2));
  EXPECT_TRUE(log.has("SSL_cert_load filepath " + std::string(list_.name[0]) + " num_files0", kHigh));
  EXPECT_TRUE(log.has("SSL_cert_load filepath " + std::string(list_.name[1]) + " num_files1", kHigh));
  EXPECT_TRUE(store_lock_is_free());
}

TEST_F(ListTest, TwelveStoredNamesAreCutToTen) {
  std::set<std::string> stored;
  for (int i = 0; i < 12; ++i) {
    const std::string name = "psk" + std::to_string(i);
    ASSERT_EQ(SSL_cert_store(name.c_str(), KORA_NET_SSL_PSK_TABLE_E, "t", 1, false), 0);
    stored.insert(name);
  }
  const int before = open_descriptors();
  ASSERT_EQ(SSL_cert_name_list(KORA_NET_SSL_PSK_TABLE_E, &list_), 10);
  std::set<std::string> listed;
  for (const auto& slot : list_.name) {
    listed.insert(slot);
  }
  EXPECT_EQ(listed.size(), 10u);
  EXPECT_TRUE(std::includes(stored.begin(), stored.end(), listed.begin(), listed.end()));
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_TRUE(store_lock_is_free());
}

// Refusals: the result, the message and its level, and whether the directory stays open.
struct RefusalCase {
  const char* label;
  int type;
  bool null_list;
  bool name_of_64;
  bool remove_directory;
  int expected;
  std::string message;
  uint32_t mask;
  int descriptors_left_open;
};

void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.label; }

class ListRefusalTest : public ListTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(ListRefusalTest, RefusesWithItsCodeAndMessage) {
  const RefusalCase& c = GetParam();
  ASSERT_EQ(SSL_cert_store("a_valid_name", KORA_NET_SSL_CA_LIST_E, "c", 1, false), 0);
  if (c.name_of_64) {
    write_plain(kCaLists + std::string(64, 'z'));
  }
  if (c.remove_directory) {
    ASSERT_EQ(std::remove((kCaLists + "a_valid_name").c_str()), 0);
    ASSERT_EQ(::rmdir(kCaLists.c_str()), 0);
  }
  const int before = open_descriptors();
  LogCapture log;
  EXPECT_EQ(SSL_cert_name_list(static_cast<kora_Net_SSL_Cert_Type_t>(c.type), c.null_list ? nullptr : &list_),
            c.expected);
  EXPECT_TRUE(log.has(c.message, c.mask)) << c.message;
  EXPECT_EQ(open_descriptors() - before, c.descriptors_left_open);
  EXPECT_TRUE(store_lock_is_free());
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, ListRefusalTest,
    ::testing::Values(RefusalCase{"null_list", 2, true, false, false, KORA_ERR_INVALID_PARAM,
                                  "Cert List is Null. \n", kError, 0},
                      RefusalCase{"kind_zero", 0, false, false, false, KORA_ERR_INVALID_PARAM,
                                  "Invalid Cert Type: 0", kHigh, 0},
                      RefusalCase{"kind_five", 5, false, false, false, KORA_ERR_INVALID_PARAM,
                                  "Invalid Cert Type: 5", kHigh, 0},
                      RefusalCase{"missing_directory", 2, false, false, true, KORA_ERROR,
                                  "Opening folder failed\n", kError, 0},
                      // The directory handle is left open on this path.
                      RefusalCase{"name_of_64_bytes", 2, false, true, false, KORA_ERR_INVALID_PARAM,
                                  "SSL_cert_load KORA_ERR_INVALID_PARAM \n", kError, 1}),
    [](const auto& test_case) { return std::string(test_case.param.label); });

}  // namespace
}  // namespace kora::test
