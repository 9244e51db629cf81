// Records the diagnostic messages of the code under test, with their descriptors.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "msg_diag.h"

namespace kora::test {

struct LoggedMessage {
  std::string text;
  uint32_t mask = 0;  // 0x8 error, 0x4 high
  uint16_t ss_id = 0;
  std::string fmt;
  std::string fname;
};

// Installs itself as the message sink for its lifetime (one at a time).
class LogCapture {
 public:
  LogCapture() { msg_set_sink(&LogCapture::sink, this); }
  ~LogCapture() { msg_set_sink(nullptr, nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LoggedMessage> messages() const;
  std::vector<std::string> texts() const;
  void clear();
  // True when a message with exactly this text and mask was logged.
  bool has(const std::string& text, uint32_t mask) const;

 private:
  static void sink(const msg_const_type* site, const char* text, void* user);
  mutable std::mutex mutex_;
  std::vector<LoggedMessage> messages_;
};

inline constexpr uint32_t kError = MSG_LEGACY_ERROR;
inline constexpr uint32_t kHigh = MSG_LEGACY_HIGH;

}  // namespace kora::test
