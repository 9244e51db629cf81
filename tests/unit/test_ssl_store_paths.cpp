#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "log_capture.h"
#include "ssl_store.h"

namespace {

using kora::test::kError;
using kora::test::kHigh;
using kora::test::LogCapture;

const std::string k63(63, 'n');
const std::string k64(64, 'n');
const std::string kCerts = "/data/data_velto/.ssl/certs/";
const std::string kKeys = "/data/data_velto/.ssl/private_keys/";

void touch(const std::string& path) { std::fclose(std::fopen(path.c_str(), "w")); }

struct PathCase {
  const char* what;
  std::string name;
  int type;
  int max_len;
  bool key;
  int rc;
  std::string path;     // the result; empty when the buffer must stay as it was
  const char* message;  // the one message logged, at `mask`, or null
  uint32_t mask;
};

class CertPath : public testing::TestWithParam<PathCase> {};

TEST_P(CertPath, ResolvesOrRefuses) {
  const PathCase& c = GetParam();
  LogCapture log;
  char buffer[512] = "untouched";
  EXPECT_EQ(c.rc, SSL_cert_get_abs_path(c.name.c_str(), static_cast<kora_Net_SSL_Cert_Type_t>(c.type), buffer,
                                        c.max_len, c.key));
  EXPECT_EQ(c.path.empty() ? "untouched" : c.path, buffer);
  const auto messages = log.messages();
  ASSERT_EQ(c.message != nullptr ? 1u : 0u, messages.size());
  if (c.message != nullptr) {  // the site descriptor as well as the text and level
    EXPECT_EQ(c.message, messages[0].text);
    EXPECT_EQ(c.mask, messages[0].mask);
    EXPECT_EQ(65, messages[0].ss_id);
    EXPECT_EQ("%s", messages[0].fmt);
    EXPECT_EQ("ssl_store", messages[0].fname);
  }
}

const char* const kLength = "Invalid EFS length";
const char* const kType = "SSL_cert_get_abs_path: Invalid type\n";
INSTANTIATE_TEST_SUITE_P(
    Table, CertPath,
    testing::Values(PathCase{"max63", k63, 1, 92, false, 0, kCerts + k63, nullptr, 0},
                    PathCase{"max63short", k63, 1, 91, false, -1, "", kLength, kError},
                    PathCase{"name64", k64, 1, 512, false, -1, "", kLength, kError},
                    PathCase{"empty", "", 1, 512, false, 0, kCerts, nullptr, 0},
                    PathCase{"ca", "x", 2, 512, false, 0, "/data/data_velto/.ssl/ca_lists/x", nullptr, 0},
                    PathCase{"psk", "x", 3, 512, false, 0, "/data/data_velto/.ssl/psk_table/x", nullptr, 0},
                    PathCase{"di", "x", 4, 512, false, 0, "/data/data_velto/.ssl/di_certs/x", nullptr, 0},
                    PathCase{"keyType0", "k", 0, 512, true, 0, kKeys + "k", nullptr, 0},
                    PathCase{"keyType7", "k", 7, 512, true, 0, kKeys + "k", nullptr, 0},
                    PathCase{"key63", k63, 1, 99, true, 0, kKeys + k63, nullptr, 0},
                    PathCase{"key63short", k63, 1, 98, true, -1, "", kLength, kError},
                    PathCase{"type0", "x", 0, 512, false, -2, "", kType, kHigh},
                    PathCase{"type5", "x", 5, 512, false, -2, "", kType, kHigh},
                    PathCase{"maxZero", "", 1, 0, false, -1, "", kLength, kError},
                    PathCase{"maxNegative", "", 1, -5, false, -1, "", kLength, kError}),
    [](const testing::TestParamInfo<PathCase>& p) { return std::string(p.param.what); });

TEST(CertPathNull, NullNameOrBufferIsInvalidParam) {
  LogCapture log;
  char buffer[64];
  EXPECT_EQ(-2, SSL_cert_get_abs_path(nullptr, KORA_NET_SSL_CERTIFICATE_E, buffer, 64, false));
  EXPECT_EQ(-2, SSL_cert_get_abs_path("x", KORA_NET_SSL_CERTIFICATE_E, nullptr, 64, false));
  EXPECT_EQ(2u, log.count("SSL_cert_get_abs_path: Invalid EFS file name or path \n"));
  EXPECT_TRUE(log.has("SSL_cert_get_abs_path: Invalid EFS file name or path \n", kError));
}

TEST(SessionPath, BoundsAndNulls) {
  LogCapture log;
  char buffer[128] = "untouched";
  EXPECT_EQ(-1, SSL_session_get_abs_path(k63.c_str(), buffer, 94));
  EXPECT_STREQ("untouched", buffer);
  EXPECT_TRUE(log.has("Invalid file path length", kError));
  EXPECT_EQ(-1, SSL_session_get_abs_path("", buffer, -1));
  EXPECT_EQ(-1, SSL_session_get_abs_path(k64.c_str(), buffer, 128));
  EXPECT_EQ(0, SSL_session_get_abs_path(k63.c_str(), buffer, 95));
  EXPECT_EQ("/data/data_velto/.ssl/sessions/" + k63, buffer);
  EXPECT_EQ(-2, SSL_session_get_abs_path(nullptr, buffer, 95));
  EXPECT_EQ(-2, SSL_session_get_abs_path("s", nullptr, 95));
  EXPECT_EQ(2u, log.count("SSL_session_get_abs_path: Invalid file name or path \n"));
}

TEST(FileExists, OpensForReadingOnly) {
  LogCapture log;
  EXPECT_EQ(-1, fileExists(nullptr));
  EXPECT_TRUE(log.has("File name is NULL\n", kError));
  EXPECT_EQ(0, fileExists("/data/data_velto/missing"));
  // Present as a name but it cannot be opened: counts as absent, silently.
  ASSERT_EQ(0, symlink("/data/data_velto/nowhere", "/data/data_velto/dangling"));
  log.clear();
  EXPECT_EQ(0, fileExists("/data/data_velto/dangling"));
  EXPECT_TRUE(log.messages().empty());
  touch("/data/data_velto/present");
  EXPECT_EQ(1, fileExists("/data/data_velto/present"));
  EXPECT_TRUE(log.has("Successfully opened the file in read mode\n", kHigh));
}

TEST(CertFileExist, ReportsEveryFailureAsMinusOne) {
  ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/certs /data/data_velto/.ssl/private_keys"));
  touch(kCerts + "dev");
  touch(kKeys + "keyonly");
  LogCapture log;
  EXPECT_EQ(0, Is_SSL_cert_file_exist("dev", KORA_NET_SSL_CERTIFICATE_E));
  EXPECT_EQ(-2, Is_SSL_cert_file_exist(nullptr, KORA_NET_SSL_CERTIFICATE_E));
  EXPECT_TRUE(log.has("Invalid file name or path\n", kError));
  EXPECT_EQ(-1, Is_SSL_cert_file_exist("dev", static_cast<kora_Net_SSL_Cert_Type_t>(9)));
  EXPECT_TRUE(log.has("Is_SSL_cert_file_exist: Error reading File :dev\n", kError));
  // Private keys are never looked for.
  EXPECT_EQ(-1, Is_SSL_cert_file_exist("keyonly", KORA_NET_SSL_CERTIFICATE_E));
  EXPECT_TRUE(log.has("Is_SSL_cert_file_exist: File :keyonly is not exist \n", kError));
  EXPECT_EQ(-1, Is_SSL_cert_file_exist("dev", KORA_NET_SSL_CA_LIST_E));
}

}  // namespace
