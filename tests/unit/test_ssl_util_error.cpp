// Draining OpenSSL's error queue into the diagnostic log.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <string>

#include "log_capture.h"
#include "ossl_ptr.h"
#include "ssl_util.h"

namespace {

using kora::test::kError;
using kora::test::LogCapture;

// Queues three errors on this thread: one from a real failed decode, two raised directly.
constexpr int kQueued = 3;
void queue_errors() {
  ERR_clear_error();
  const unsigned char garbage[] = {0x30, 0x03, 0x02};
  const unsigned char* p = garbage;
  EXPECT_EQ(d2i_X509(nullptr, &p, sizeof garbage), nullptr);
  ERR_clear_error();  // the decoder's own count of entries is not ours to pin
  ERR_raise(ERR_LIB_X509, X509_R_CERT_ALREADY_IN_HASH_TABLE);
  ERR_raise(ERR_LIB_PEM, PEM_R_NO_START_LINE);
  ERR_raise_data(ERR_LIB_SSL, SSL_R_BAD_LENGTH, "extra %s", "detail");
}

TEST(SslUtilErrorDrain, OneErrorMessagePerQueuedErrorThenTheQueueIsEmpty) {
  queue_errors();
  LogCapture log;
  log_ssl_internal_error_impl("SSL_certificate_load", 321);
  const auto messages = log.messages();
  ASSERT_EQ(static_cast<int>(messages.size()), kQueued);
  for (const auto& m : messages) {
    EXPECT_EQ(m.mask, kError);
    EXPECT_EQ(m.ss_id, 65);
    EXPECT_EQ(m.fmt, "%s");
    EXPECT_EQ(m.fname, "ssl_util");
    EXPECT_EQ(m.text.rfind("SSL_certificate_load:321: OpenSSL error ", 0), 0u) << m.text;
    EXPECT_EQ(m.text.back(), '\n');
  }
  EXPECT_NE(messages.back().text.find("extra detail"), std::string::npos) << "error data not reported";
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(SslUtilErrorDrain, EmptyQueueLogsNothing) {
  ERR_clear_error();
  LogCapture log;
  log_ssl_internal_error_impl("f", 1);
  EXPECT_TRUE(log.messages().empty());
}

}  // namespace
