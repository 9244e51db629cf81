#include "log_capture.h"

#include <algorithm>

namespace kora::test {

void LogCapture::sink(const msg_const_type* site, const char* text, void* user) {
  auto* self = static_cast<LogCapture*>(user);
  const std::lock_guard<std::mutex> lock(self->mutex_);
  self->messages_.push_back({text != nullptr ? text : "", site->desc.ss_mask, site->desc.ss_id,
                             site->fmt != nullptr ? site->fmt : "",
                             site->fname != nullptr ? site->fname : ""});
}

std::vector<LoggedMessage> LogCapture::messages() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return messages_;
}

std::vector<std::string> LogCapture::texts() const {
  const std::vector<LoggedMessage> all = messages();
  std::vector<std::string> out(all.size());
  std::transform(all.begin(), all.end(), out.begin(), [](const LoggedMessage& m) { return m.text; });
  return out;
}

void LogCapture::clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  messages_.clear();
}

bool LogCapture::has(const std::string& text, uint32_t mask) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::any_of(messages_.begin(), messages_.end(),
                     [&](const LoggedMessage& m) { return m.text == text && m.mask == mask; });
}

}  // namespace kora::test
