// The host logger: what the default sink prints, what a sink receives, safe sink switching.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "log_capture.h"
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
  std::ifstream in("/data/stderr.txt");
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(DefaultSink, PrintsOneLinePerMessageAndHighOnlyWhenVerbose) {
  const struct {
    uint32_t mask;
    int verbose;
    const char *fmt, *text, *printed;
  } cases[] = {
      {0x8, 0, "%s", "Cannot open dir\n", "ERROR ssl_store:42 Cannot open dir\n"},
      {0x8, 0, "%s", "SSL directory unavailable \n", "ERROR ssl_store:42 SSL directory unavailable \n"},
      {0x8, 0, "%s", "Keyblob is generated", "ERROR ssl_store:42 Keyblob is generated\n"},
      {0x4, 0, "%s", "Root directory unavailable\n", ""},
      {0x4, 1, "%s", "Root directory unavailable\n", "HIGH ssl_store:42 Root directory unavailable\n"},
      {0x8, 0, "%s", "100%s %d %n", "ERROR ssl_store:42 100%s %d %n\n"},
      {0x8, 0, "[%s] 5%% %d", "x", "ERROR ssl_store:42 [x] 5% %d\n"}};
  for (const auto& c : cases) {
    const msg_const_type site = {{42, 65, c.mask}, c.fmt, "ssl_store"};
    msg_set_verbose(c.verbose);
    EXPECT_EQ(stderr_of([&] { msg_sprintf(&site, c.text); }), c.printed) << c.fmt << " " << c.text;
  }
}

TEST(MsgSink, ReceivesTheExactTextAndNullRestoresTheDefault) {
  static const msg_const_type site = {{7, 65, MSG_LEGACY_ERROR}, "%s", "ssl_store"};
  {
    kora::test::LogCapture capture;
    EXPECT_EQ(stderr_of([&] { msg_sprintf(&site, "SSL_cert_store: Unable to generate TA nonce "); }), "");
    ASSERT_EQ(capture.messages().size(), 1u);
    EXPECT_EQ(capture.messages()[0].site, &site);
    EXPECT_EQ(capture.messages()[0].text, "SSL_cert_store: Unable to generate TA nonce ");
  }
  EXPECT_EQ(stderr_of([&] { msg_sprintf(&site, "back"); }), "ERROR ssl_store:7 back\n");
}

// After msg_set_sink returns, no call is still inside the previous sink and none will reach
// it, so its owner may destroy it at once.
TEST(MsgSink, SwitchingWaitsForCallsInsideTheOldSink) {
  static const msg_const_type site = {{1, 65, MSG_LEGACY_ERROR}, "%s", "ssl_store"};
  struct Slow {
    std::atomic<int> inside{0}, calls{0};
  } slow;
  msg_set_sink(
      [](const msg_const_type*, const char*, void* user) {
        auto* s = static_cast<Slow*>(user);
        s->inside.fetch_add(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        s->calls.fetch_add(1);
        s->inside.fetch_sub(1);
      },
      &slow);
  std::atomic<bool> stop{false};
  std::thread logger([&] {
    while (!stop) {
      msg_sprintf(&site, "busy");
    }
  });
  while (slow.inside.load() == 0) {
    std::this_thread::yield();
  }
  kora::test::LogCapture replacement;
  EXPECT_EQ(slow.inside.load(), 0);
  const int calls_at_switch = slow.calls.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  stop = true;
  logger.join();
  EXPECT_EQ(slow.calls.load(), calls_at_switch);
  EXPECT_GT(replacement.count("busy"), 0u);
}

}  // namespace
