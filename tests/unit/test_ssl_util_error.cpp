// Draining OpenSSL's error queue into the diagnostic log.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "log_capture.h"
#include "ssl_util.h"

namespace {

using kora::test::LogCapture;

TEST(SslUtilErrorDrain, OneErrorMessagePerQueuedErrorThenNothingMore) {
  ERR_clear_error();
  ERR_raise(ERR_LIB_X509, X509_R_CERT_ALREADY_IN_HASH_TABLE);
  ERR_raise(ERR_LIB_PEM, PEM_R_NO_START_LINE);
  ERR_raise_data(ERR_LIB_SSL, SSL_R_BAD_LENGTH, "extra %s", "detail");
  LogCapture log;
  log_ssl_internal_error_impl("SSL_certificate_load", 321);
  const auto messages = log.messages();
  ASSERT_EQ(messages.size(), 3u);
  for (const auto& m : messages) {
    EXPECT_EQ(m.mask, kora::test::kError);
    EXPECT_EQ(m.ss_id, 65);
    EXPECT_EQ(m.fmt, "%s");
    EXPECT_EQ(m.fname, "ssl_util");
    EXPECT_EQ(m.text.rfind("SSL_certificate_load:321: OpenSSL error ", 0), 0u) << m.text;
    EXPECT_EQ(m.text.back(), '\n');
  }
  EXPECT_NE(messages.back().text.find("extra detail"), std::string::npos) << "error data not reported";
  EXPECT_EQ(ERR_peek_error(), 0u);
  log.clear();
  log_ssl_internal_error_impl("f", 1);  // the queue is empty now
  EXPECT_TRUE(log.messages().empty());
}

}  // namespace
