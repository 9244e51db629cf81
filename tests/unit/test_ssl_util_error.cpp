// Draining OpenSSL's error queue into the diagnostic log.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "log_capture.h"
#include "ssl_util.h"

namespace {

TEST(SslUtilErrorDrain, OneErrorMessagePerQueuedErrorThenNothingMore) {
  ERR_clear_error();
  ERR_raise(ERR_LIB_PEM, PEM_R_NO_START_LINE);
  ERR_raise_data(ERR_LIB_SSL, SSL_R_BAD_LENGTH, "extra %s", "detail");
  ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
  ERR_set_error_data(OPENSSL_strdup("not text"), ERR_TXT_MALLOCED);  // data that is not a string
  kora::test::LogCapture log;
  log_ssl_internal_error_impl("SSL_certificate_load", 321);
  const auto messages = log.messages();
  ASSERT_EQ(messages.size(), 3u);
  for (const auto& m : messages) {
    EXPECT_TRUE(m.mask == kora::test::kError && m.ss_id == 65 && m.fmt == "%s" && m.fname == "ssl_util");
    EXPECT_EQ(m.text.rfind("SSL_certificate_load:321: OpenSSL error ", 0), 0u) << m.text;
    EXPECT_EQ(m.text.back(), '\n');
    EXPECT_NE(m.text.find(" (" __FILE__ ":"), std::string::npos) << "where the error was raised not said";
  }
  EXPECT_NE(messages[1].text.find("extra detail"), std::string::npos) << "error data not reported";
  EXPECT_EQ(messages[2].text.find("not text"), std::string::npos) << "data not flagged as text printed";
  log.clear();
  log_ssl_internal_error_impl("f", 1);  // the queue is empty now
  EXPECT_TRUE(log.messages().empty());
}

}  // namespace
