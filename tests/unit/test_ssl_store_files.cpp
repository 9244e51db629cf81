// Names to paths and the whole files behind them: path resolution and its limits, existence
// tests, reading, writing and deleting whole files, and the removal of bound session files.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "file_bytes.h"
#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_store_layout.h"
#include "subprocess.h"

namespace kora::test {

const std::string k63(63, 'n'), k64(64, 'n'), kCerts = "/data/data_velto/.ssl/certs/";
const std::string kKey = "/data/data_velto/.ssl/private_keys/k";
const std::string kDir = "/data/data_velto/", kSessions = "/data/data_velto/.ssl/sessions/";

struct PathCase {
  const char* label;
  std::string name;
  int type, max_len;
  bool key;
  int rc;
  std::string path;     // empty: the buffer stays as it was
  const char* message;  // the one message logged, at `mask`, or null
  uint32_t mask;
};
std::ostream& operator<<(std::ostream& os, const PathCase& r) { return os << r.label; }

class CertPath : public testing::TestWithParam<PathCase> {};

TEST_P(CertPath, ResolvesOrRefuses) {
  const PathCase& c = GetParam();
  LogCapture log;
  char buffer[512] = "untouched";
  EXPECT_EQ(c.rc, SSL_cert_get_abs_path(c.name.c_str(), static_cast<kora_Net_SSL_Cert_Type_t>(c.type), buffer,
                                        c.max_len, c.key));
  EXPECT_EQ(c.path.empty() ? "untouched" : c.path, buffer);
  // The kind's directory: null exactly for the resolver's invalid type, else the path's start.
  const char* dir = ssl_store_kind_dir(static_cast<kora_Net_SSL_Cert_Type_t>(c.type), c.key);
  EXPECT_TRUE((c.rc == -2) == (dir == nullptr) && (c.path.empty() || c.path.rfind(dir, 0) == 0)) << c.path;
  ASSERT_EQ(c.message != nullptr ? 1u : 0u, log.messages().size());
  if (c.message != nullptr) {
    const auto m = log.messages()[0];
    EXPECT_EQ(
        std::make_tuple(std::string(c.message), c.mask, 65, std::string("%s"), std::string("ssl_store")),
        std::make_tuple(m.text, m.mask, static_cast<int>(m.ss_id), m.fmt, m.fname));
  }
}

const char* const kLength = "Invalid EFS length";
const char* const kType = "SSL_cert_get_abs_path: Invalid type\n";
INSTANTIATE_TEST_SUITE_P(Table, CertPath,
                         testing::Values(PathCase{"max63", k63, 1, 92, false, 0, kCerts + k63, nullptr, 0},
                                         PathCase{"max63short", k63, 1, 91, false, -1, "", kLength, kError},
                                         PathCase{"name64", k64, 1, 512, false, -1, "", kLength, kError},
                                         PathCase{"keyType7", "k", 7, 512, true, 0, kKey, nullptr, 0},
                                         PathCase{"type5", "x", 5, 512, false, -2, "", kType, kHigh}));

TEST(Paths, SessionPathAndExistenceChecks) {
  LogCapture log;
  char buffer[128];
  EXPECT_EQ(-1, SSL_session_get_abs_path(k63.c_str(), buffer, 94));
  EXPECT_TRUE(log.has("Invalid file path length", kError));
  EXPECT_EQ(0, SSL_session_get_abs_path(k63.c_str(), buffer, 95));
  EXPECT_EQ(kSessions + k63, buffer);
  for (const auto& [name, out] : {std::pair{static_cast<const char*>(nullptr), buffer}, {"dev", nullptr}}) {
    EXPECT_EQ(-2, SSL_cert_get_abs_path(name, KORA_NET_SSL_CERTIFICATE_E, out, 128, false));
  }
  EXPECT_TRUE(log.has("SSL_cert_get_abs_path: Invalid EFS file name or path \n", kError));
  ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/certs /data/data_velto/.ssl/private_keys"));
  std::fclose(std::fopen((kCerts + "dev").c_str(), "w"));
  std::fclose(std::fopen("/data/data_velto/.ssl/private_keys/keyonly", "w"));
  EXPECT_EQ(std::make_tuple(1, 0, -1),
            std::make_tuple(fileExists((kCerts + "dev").c_str()), fileExists((kCerts + "none").c_str()),
                            fileExists(nullptr)));
  EXPECT_TRUE(log.has("Successfully opened the file in read mode\n", kHigh) &&
              log.has("File name is NULL\n", kError));
  EXPECT_EQ(0, Is_SSL_cert_file_exist("dev", KORA_NET_SSL_CERTIFICATE_E));
  // A bad type is -1 here, not the resolver's -2; private keys are never looked for.
  EXPECT_EQ(-1, Is_SSL_cert_file_exist("dev", static_cast<kora_Net_SSL_Cert_Type_t>(9)));
  EXPECT_TRUE(log.has("Is_SSL_cert_file_exist: Error reading File :dev\n", kError));
  EXPECT_EQ(-1, Is_SSL_cert_file_exist("keyonly", KORA_NET_SSL_CERTIFICATE_E));
  EXPECT_TRUE(log.has("Is_SSL_cert_file_exist: File :keyonly is not exist \n", kError));
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

TEST(Files, ReadWriteWholeFileOrLeaveOutputsAloneAndDeleteRemoves) {
  LogCapture log;
  for (const std::string& bytes : {std::string(), std::string("a\0b", 3)}) {
    spill(kDir + "f", bytes);
    void* buffer = nullptr;
    size_t size = 99;
    ASSERT_EQ(0, ssl_store_read_from_file((kDir + "f").c_str(), &buffer, &size));
    ASSERT_NE(nullptr, buffer);  // a zero-byte file still yields a buffer to free
    EXPECT_EQ(bytes, std::string(static_cast<char*>(buffer), size));
    free(buffer);
  }
  void* buffer = &log;
  size_t size = 7;
  EXPECT_EQ(-1, ssl_store_read_from_file("/data/data_velto/missing", &buffer, &size));
  EXPECT_TRUE(
      log.has("ssl_store_read_from_file: Unable to open file to read /data/data_velto/missing\n", kError));
  EXPECT_TRUE(buffer == &log && size == 7);
  // A write replaces the whole file or touches nothing; a delete removes it.
  const std::string path = kDir + "w";
  spill(path, std::string(100, 'o'));
  std::string bytes("new\0", 4);
  ASSERT_EQ(0, ssl_store_write_to_file(path.c_str(), bytes.data(), bytes.size()));
  EXPECT_EQ(-1, ssl_store_write_to_file(path.c_str(), bytes.data(), 0));
  EXPECT_TRUE(log.has("ssl_store_write_to_file: name or buffer_ptr or buffer size is NULL\n", kError));
  EXPECT_EQ(bytes, slurp(path));
  EXPECT_EQ(0, ssl_store_delete_file(path.c_str()));
  EXPECT_FALSE(exists(path));
  EXPECT_EQ(-1, ssl_store_delete_file(path.c_str()));
  EXPECT_TRUE(log.has("Unable to delete the file\n", kError));
  EXPECT_EQ(-2, ssl_store_delete_file(nullptr));
  EXPECT_TRUE(log.has("ssl_store_delete_file: Invalid file name \n", kError));
}

// Leaves no free stretch of address space of 64 MiB or more. User-mode emulators ignore
// RLIMIT_AS, and a 32-bit address space is quickly filled with inaccessible mappings.
void fill_address_space() {
  for (size_t size = size_t{1} << 30; size >= (size_t{64} << 20);) {
    if (mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0) == MAP_FAILED) {
      size /= 2;
    }
  }
}

// The allocation failure keeps its file open. A child without 512 MiB of address space to spare
// makes the 1 GiB allocation fail.
TEST(Files, NoMemoryLeavesFileOpen) {
  const std::string path = kDir + "huge";
  ASSERT_TRUE(spill(path, ""));
  std::filesystem::resize_file(path, 1 << 30);  // sparse on tmpfs
  EXPECT_EQ(0, in_child([&] {
              LogCapture log;
              if (sizeof(void*) == 4) {
                fill_address_space();
              } else {
                const rlimit limit{512u << 20, 512u << 20};
                setrlimit(RLIMIT_AS, &limit);
              }
              void* buffer = nullptr;
              size_t size = 0;
              const int rc = ssl_store_read_from_file(path.c_str(), &buffer, &size);
              bool open_left = false;
              for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
                std::error_code ec;
                open_left |= std::filesystem::read_symlink(entry.path(), ec) == path;
              }
              return rc == -3 && open_left &&
                             log.has("ssl_store_read_from_file: KORA_ERR_NO_MEMORY \n", kError)
                         ? 0
                         : 1;
            }));
}

TEST(Files, BoundSessionFilesRemovedByPrefix) {
  ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/sessions"));
  // A 254-byte name (the longest JFFS2 allows) whose full path is cut at 256 bytes: not reached.
  const std::string l245(245, 'l');
  // A name of 65536 + 247 bytes counts as 247 in 16 bits: its 255-byte file is one byte short of
  // the bound, so it is passed over and the 224-byte name its cut path would unlink stays.
  std::string wrapped = std::string(247, 'w') + ".session";
  wrapped.resize(65536 + 247, 'w');
  const std::vector<std::string> removed = {"abc_.session", "abc_1.timestamp", "abc_def_7.session"};
  const std::vector<std::string> kept = {"abc_xyzuvw.der",   "abcd_1.session",       "abc.session",
                                         l245 + "_.session", wrapped.substr(0, 255), std::string(224, 'w')};
  for (const auto& name : removed) spill(kSessions + name, "s");
  std::vector<std::string> made;  // JFFS2 refuses the 255-byte name
  for (const auto& name : kept) {
    spill(kSessions + name, "s");
    if (exists(kSessions + name)) made.push_back(name);
  }
  for (const auto& name : {std::string("abc"), l245, wrapped}) {
    ssl_store_delete_binded_session_files(name.c_str(), KORA_NET_SSL_CERTIFICATE_E);
  }
  for (const auto& name : removed) EXPECT_FALSE(exists(kSessions + name)) << name;
  for (const auto& name : made) EXPECT_TRUE(exists(kSessions + name)) << name;
}

}  // namespace kora::test
