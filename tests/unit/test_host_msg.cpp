// The host logger: what the default sink prints.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "file_bytes.h"
#include "msg_diag.h"

namespace {

// Runs `fn` with stderr sent to a file and returns what was written there.
template <class Fn>
std::string stderr_of(Fn fn) {
  std::fflush(stderr);
  const int saved = ::dup(2);
  const int fd = ::open("/data/stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ::dup2(fd, 2);
  ::close(fd);
  fn();
  std::fflush(stderr);
  ::dup2(saved, 2);
  ::close(saved);
  return kora::test::slurp("/data/stderr.txt");
}

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
    EXPECT_EQ(stderr_of([&] { msg_sprintf(&site, c.text); }), c.printed) << c.fmt << " " << c.text;
  }
}

}  // namespace
