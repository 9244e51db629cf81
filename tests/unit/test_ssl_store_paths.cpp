#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>

#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_store_layout.h"

namespace kora::test {

const std::string k63(63, 'n'), k64(64, 'n'), kCerts = "/data/data_velto/.ssl/certs/";
const std::string kKey = "/data/data_velto/.ssl/private_keys/k";

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
  EXPECT_EQ("/data/data_velto/.ssl/sessions/" + k63, buffer);
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

}  // namespace kora::test
