// The host logger: what the default sink prints, what a sink receives, safe sink switching.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "log_capture.h"
#include "msg_diag.h"

namespace {

using kora::test::kError;
using kora::test::kHigh;

// Runs `fn` with stderr sent to a file and returns what was written there.
template <class Fn>
std::string stderr_of(Fn fn) {
  const char* path = "/data/stderr.txt";
  std::fflush(stderr);
  const int saved = ::dup(2);
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ::dup2(fd, 2);
  ::close(fd);
  fn();
  std::fflush(stderr);
  ::dup2(saved, 2);
  ::close(saved);
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

struct PrintCase {
  const char* name;
  uint32_t mask;
  bool verbose;
  const char* fmt;
  const char* text;
  const char* printed;
};

class DefaultSink : public testing::TestWithParam<PrintCase> {};

TEST_P(DefaultSink, PrintsOneLinePerMessage) {
  const PrintCase& c = GetParam();
  const msg_const_type site = {{42, 65, c.mask}, c.fmt, "ssl_store"};
  msg_set_verbose(c.verbose ? 1 : 0);
  EXPECT_EQ(stderr_of([&] { msg_sprintf(&site, c.text); }), c.printed);
  msg_set_verbose(0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DefaultSink,
    testing::Values(
        PrintCase{"ErrorAlways", MSG_LEGACY_ERROR, false, "%s", "Cannot open dir\n",
                  "ERROR ssl_store:42 Cannot open dir\n"},
        PrintCase{"TrailingBlankKept", MSG_LEGACY_ERROR, false, "%s", "SSL directory unavailable \n",
                  "ERROR ssl_store:42 SSL directory unavailable \n"},
        PrintCase{"NoNewlineGetsOne", MSG_LEGACY_ERROR, false, "%s", "Keyblob is generated",
                  "ERROR ssl_store:42 Keyblob is generated\n"},
        PrintCase{"HighSilentByDefault", MSG_LEGACY_HIGH, false, "%s", "Root directory unavailable\n", ""},
        PrintCase{"HighWhenVerbose", MSG_LEGACY_HIGH, true, "%s", "Root directory unavailable\n",
                  "HIGH ssl_store:42 Root directory unavailable\n"},
        PrintCase{"PercentInTextIsNotAFormat", MSG_LEGACY_ERROR, false, "%s", "100%s %d %n",
                  "ERROR ssl_store:42 100%s %d %n\n"},
        PrintCase{"OtherFmtWrapsTheText", MSG_LEGACY_ERROR, false, "[%s] 5%%", "x",
                  "ERROR ssl_store:42 [x] 5%\n"}),
    [](const auto& tp) { return std::string(tp.param.name); });

TEST(MsgSink, ReceivesTheSiteAndTheExactText) {
  static const msg_const_type site = {{7, 65, MSG_LEGACY_HIGH}, "%s", "ssl_store"};
  kora::test::LogCapture capture;
  msg_sprintf(&site, "SSL_cert_store: Unable to generate TA nonce ");
  const auto messages = capture.messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].site, &site);
  EXPECT_EQ(messages[0].text, "SSL_cert_store: Unable to generate TA nonce ");
  EXPECT_EQ(messages[0].mask, kHigh);
  EXPECT_EQ(stderr_of([&] { msg_sprintf(&site, "captured, not printed"); }), "");
}

TEST(MsgSink, NullSinkRestoresTheDefault) {
  static const msg_const_type site = {{9, 65, MSG_LEGACY_ERROR}, "%s", "ssl_store"};
  { kora::test::LogCapture capture; }
  EXPECT_EQ(stderr_of([&] { msg_sprintf(&site, "back"); }), "ERROR ssl_store:9 back\n");
  EXPECT_EQ(stderr_of([&] { msg_sprintf(nullptr, "ignored"); }), "");
}

// After msg_set_sink returns, the previous sink is never called again and no call is still
// inside it, so its owner may destroy it at once.
TEST(MsgSink, SwitchingWaitsForCallsInsideTheOldSink) {
  static const msg_const_type site = {{1, 65, MSG_LEGACY_ERROR}, "%s", "ssl_store"};
  struct Slow {
    std::atomic<int> inside{0};
    std::atomic<int> calls{0};
    std::atomic<bool> entered{false};
  } slow;
  auto sink = [](const msg_const_type*, const char*, void* user) {
    auto* s = static_cast<Slow*>(user);
    s->inside.fetch_add(1);
    s->entered = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    s->calls.fetch_add(1);
    s->inside.fetch_sub(1);
  };
  msg_set_sink(sink, &slow);
  std::atomic<bool> stop{false};
  std::thread logger([&] {
    while (!stop) {
      msg_sprintf(&site, "busy");
    }
  });
  while (!slow.entered) {
    std::this_thread::yield();
  }
  kora::test::LogCapture replacement;  // switches the sink away from `slow`
  EXPECT_EQ(slow.inside.load(), 0);
  const int calls_after_switch = slow.calls.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  stop = true;
  logger.join();
  EXPECT_EQ(slow.calls.load(), calls_after_switch);
  EXPECT_GT(replacement.count("busy"), 0u);
}

}  // namespace
