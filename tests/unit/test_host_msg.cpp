// The host logger: what the default sink prints.
#include <gtest/gtest.h>

#include "msg_diag.h"

namespace {

TEST(DefaultSink, PrintsOneLinePerMessageAndHighOnlyWhenVerbose) {
  const struct {
    uint32_t mask;
    int verbose;
    const char *fmt, *text, *printed;
  } cases[] = {
      {0x8, 0, "%s", "SSL directory unavailable \n", "ERROR ssl_store:42 SSL directory unavailable \n"},
      {0x8, 0, "%s", "Keyblob is generated", "ERROR ssl_store:42 Keyblob is generated\n"},
      {0x4, 0, "%s", "Root directory unavailable\n", ""},
      {0x4, 1, "%s", "Root directory unavailable\n", "HIGH ssl_store:42 Root directory unavailable\n"},
      {0x8, 0, "[%s] 5%% %d", "x", "ERROR ssl_store:42 [x] 5% %d\n"}};
  for (const auto& c : cases) {
    const msg_const_type site = {{42, 65, c.mask}, c.fmt, "ssl_store"};
    msg_set_verbose(c.verbose);
    testing::internal::CaptureStderr();
    msg_sprintf(&site, c.text);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.printed) << c.fmt << " " << c.text;
  }
}

}  // namespace
