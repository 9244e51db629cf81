#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "log_capture.h"
#include "private_root.h"
#include "ssl_store.h"

namespace {

using kora::test::kError;
using kora::test::LogCapture;

const std::string kDir = "/data/data_velto/";
const std::string kSessions = "/data/data_velto/.ssl/sessions/";

void put(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}
std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

TEST(ReadFile, WholeFileIntoFreshBuffer) {
  for (const std::string& bytes : {std::string(), std::string("a\0b", 3), std::string(70000, 'z')}) {
    put(kDir + "f", bytes);
    void* buffer = nullptr;
    size_t size = 99;
    ASSERT_EQ(0, ssl_store_read_from_file((kDir + "f").c_str(), &buffer, &size));
    ASSERT_NE(nullptr, buffer);  // a zero-byte file still yields a buffer to free
    EXPECT_EQ(bytes, std::string(static_cast<char*>(buffer), size));
    std::free(buffer);
  }
}

TEST(ReadFile, FailuresLeaveOutputsAlone) {
  LogCapture log;
  int sentinel = 0;
  void* buffer = &sentinel;
  size_t size = 7;
  EXPECT_EQ(-1, ssl_store_read_from_file("/data/data_velto/missing", &buffer, &size));
  EXPECT_TRUE(
      log.has("ssl_store_read_from_file: Unable to open file to read /data/data_velto/missing\n", kError));
  EXPECT_EQ(&sentinel, buffer);
  EXPECT_EQ(7u, size);
  EXPECT_EQ(-1, ssl_store_read_from_file(nullptr, &buffer, &size));
  EXPECT_EQ(-1, ssl_store_read_from_file("/x", nullptr, &size));
  EXPECT_EQ(-1, ssl_store_read_from_file("/x", &buffer, nullptr));
  EXPECT_EQ(3u, log.count("SSL_cert_store: ssl_store_read_buffer_from_file failed! \n"));
}

// The allocation failure keeps its file open. A child under an address-space limit makes
// the 1 GiB allocation fail without touching other tests.
TEST(ReadFile, NoMemoryLeavesFileOpen) {
  const std::string path = kDir + "huge";
  const int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
  ASSERT_EQ(0, ftruncate(fd, 1 << 30));  // sparse on tmpfs
  close(fd);
  const pid_t pid = fork();
  if (pid == 0) {
    LogCapture log;
    const rlimit limit{512u << 20, 512u << 20};
    setrlimit(RLIMIT_AS, &limit);
    void* buffer = nullptr;
    size_t size = 0;
    const int rc = ssl_store_read_from_file(path.c_str(), &buffer, &size);
    bool open_left = false;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ec;
      open_left |= std::filesystem::read_symlink(entry.path(), ec) == path;
    }
    _exit(rc == -3 && buffer == nullptr && open_left &&
                  log.has("ssl_store_read_from_file: KORA_ERR_NO_MEMORY \n", kError)
              ? 0
              : 1);
  }
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(WriteFile, ReplacesWholeFileOrTouchesNothing) {
  LogCapture log;
  const std::string path = kDir + "w";
  put(path, std::string(100, 'o'));
  std::string bytes("new\0", 4);
  ASSERT_EQ(0, ssl_store_write_to_file(path.c_str(), bytes.data(), bytes.size()));
  EXPECT_EQ(bytes, contents(path));
  char byte = 'b';
  EXPECT_EQ(-1, ssl_store_write_to_file(path.c_str(), &byte, 0));
  EXPECT_EQ(-1, ssl_store_write_to_file(path.c_str(), nullptr, 1));
  EXPECT_EQ(-1, ssl_store_write_to_file(nullptr, &byte, 1));
  EXPECT_EQ(3u, log.count("ssl_store_write_to_file: name or buffer_ptr or buffer size is NULL\n"));
  EXPECT_EQ(bytes, contents(path));
  EXPECT_EQ(-1, ssl_store_write_to_file("/data/data_velto/no/dir", &byte, 1));
  EXPECT_TRUE(log.has("Error in opening /data/data_velto/no/dir\n", kError));
}

TEST(WriteFile, FullDiskIsNotDetected) {
  ASSERT_EQ("", kora::test::mount_tmpfs(kDir, "size=8k"));
  std::string bytes(64 * 1024, 'x');
  EXPECT_EQ(0, ssl_store_write_to_file((kDir + "big").c_str(), bytes.data(), bytes.size()));
  EXPECT_LT(contents(kDir + "big").size(), bytes.size());
}

TEST(DeleteFile, RemovesFilesAndEmptyDirectories) {
  LogCapture log;
  put(kDir + "d", "x");
  ASSERT_EQ(0,
            system("mkdir -p /data/data_velto/empty /data/data_velto/full && touch /data/data_velto/full/x"));
  EXPECT_EQ(0, ssl_store_delete_file((kDir + "d").c_str()));
  EXPECT_EQ(0, ssl_store_delete_file((kDir + "empty").c_str()));
  EXPECT_FALSE(exists(kDir + "d") || exists(kDir + "empty"));
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(-1, ssl_store_delete_file((kDir + "d").c_str()));
  EXPECT_EQ(-1, ssl_store_delete_file((kDir + "full").c_str()));
  EXPECT_EQ(2u, log.count("Unable to delete the file\n"));
  EXPECT_EQ(-2, ssl_store_delete_file(nullptr));
  EXPECT_TRUE(log.has("ssl_store_delete_file: Invalid file name \n", kError));
}

struct SessionCase {
  const char* what;
  std::string cert;
  std::vector<std::string> removed;
  std::vector<std::string> kept;
};

class BoundSessions : public testing::TestWithParam<SessionCase> {};

TEST_P(BoundSessions, RemovesExactlyTheBoundFiles) {
  const SessionCase& c = GetParam();
  ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/sessions/abc_x.session"));  // a directory: kept
  for (const auto& name : c.removed) {
    put(kSessions + name, "s");
  }
  for (const auto& name : c.kept) {
    put(kSessions + name, "s");
  }
  LogCapture log;
  ssl_store_delete_binded_session_files(c.cert.c_str(), KORA_NET_SSL_CERTIFICATE_E);
  for (const auto& name : c.removed) {
    EXPECT_FALSE(exists(kSessions + name)) << name;
  }
  for (const auto& name : c.kept) {
    EXPECT_TRUE(exists(kSessions + name)) << name;
  }
  EXPECT_TRUE(exists(kSessions + "abc_x.session"));
  EXPECT_TRUE(log.messages().empty());
}

const std::string kL215(215, 'l');
const std::string kL246(246, 'l');
INSTANTIATE_TEST_SUITE_P(
    Table, BoundSessions,
    testing::Values(
        SessionCase{
            "Abc",
            "abc",
            {"abc_1.session", "abc_1.timestamp", "abc_def_7.session", "abc_.session", "abc_.timestamp"},
            {"abc_x.der", "abcd_1.session", "abc.session", "xabc_1.session", "abc_1.session.bak"}},
        SessionCase{
            "EmptyName", "", {"_x.session", "_.session", "_.timestamp"}, {"a_1.session", "abc_1.session"}},
        // The full path is cut at 256 bytes: a bound file is reached only while it fits.
        SessionCase{"LongestReachable", kL215, {kL215 + "_.session"}, {}},
        SessionCase{"PathTooLong", kL246, {}, {kL246 + "_.session"}}),
    [](const testing::TestParamInfo<SessionCase>& p) { return std::string(p.param.what); });

TEST(BoundSessionsErrors, NullNameAndMissingDirectory) {
  LogCapture log;
  ssl_store_delete_binded_session_files(nullptr, KORA_NET_SSL_CERTIFICATE_E);
  ssl_store_delete_binded_session_files("abc", KORA_NET_SSL_CERTIFICATE_E);
  EXPECT_EQ((std::vector<std::string>{"Cert file name passed is NULL\n", "Cannot open dir\n"}), log.texts());
  EXPECT_EQ(kError, log.messages()[0].mask);
  EXPECT_EQ(kError, log.messages()[1].mask);
}

}  // namespace
