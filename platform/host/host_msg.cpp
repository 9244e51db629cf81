// Host diagnostic message service: one line per message to a replaceable sink.
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "msg_diag.h"

namespace kora::host {
namespace {

constexpr uint32_t kMaskLow = 0x1;
constexpr uint32_t kMaskMed = 0x2;
constexpr uint32_t kMaskFatal = 0x10;

// The sink in use and the number of calls currently inside it. Switching the sink waits
// until no call is inside the old one, so a sink's owner may destroy it right after
// msg_set_sink returns.
struct SinkState {
  std::mutex mutex;
  std::condition_variable idle;
  msg_sink_fn sink = nullptr;  // null: the default sink
  void* user = nullptr;
  unsigned in_flight = 0;
  bool verbose = false;
};

SinkState& state() {
  static SinkState s;
  return s;
}

// Calls from inside a sink (a sink that logs, or one that switches the sink) must not wait
// for themselves.
thread_local unsigned t_sink_depth = 0;

const char* level_name(uint32_t mask) {
  if ((mask & kMaskFatal) != 0) {
    return "FATAL";
  }
  if ((mask & MSG_LEGACY_ERROR) != 0) {
    return "ERROR";
  }
  if ((mask & MSG_LEGACY_HIGH) != 0) {
    return "HIGH";
  }
  if ((mask & kMaskMed) != 0) {
    return "MED";
  }
  if ((mask & kMaskLow) != 0) {
    return "LOW";
  }
  return "MSG";
}

// The descriptor's fmt takes the text as its one "%s" argument. Every module passes "%s";
// any other fmt has its first "%s" replaced by the text and "%%" turned into "%", so a
// descriptor can never make the logger read arguments that are not there.
std::string apply_format(const char* fmt, const char* text) {
  if (fmt == nullptr || std::strcmp(fmt, "%s") == 0) {
    return text;
  }
  std::string out;
  bool used = false;
  for (const char* p = fmt; *p != '\0'; ++p) {
    if (p[0] == '%' && p[1] == '%') {
      out.push_back('%');
      ++p;
    } else if (p[0] == '%' && p[1] == 's' && !used) {
      out.append(text);
      used = true;
      ++p;
    } else {
      out.push_back(*p);
    }
  }
  return out;
}

void default_sink(const msg_const_type* blk, const char* text, bool verbose) {
  const uint32_t mask = blk->desc.ss_mask;
  const bool is_error = (mask & (MSG_LEGACY_ERROR | kMaskFatal)) != 0;
  if (!is_error && !verbose) {
    return;
  }
  // One line per message: the text's own line ends are dropped, one is added.
  std::string body = text;
  while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) {
    body.pop_back();
  }
  std::string line = level_name(mask);
  line += ' ';
  line += blk->fname != nullptr ? blk->fname : "?";
  line += ':';
  line += std::to_string(blk->desc.line);
  line += ' ';
  line += body;
  line += '\n';
  // A single write keeps lines of concurrent callers whole.
  (void)std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

void log_message(const msg_const_type* blk, const char* text) {
  if (blk == nullptr) {
    return;
  }
  const std::string formatted = apply_format(blk->fmt, text != nullptr ? text : "");
  SinkState& s = state();
  msg_sink_fn sink = nullptr;
  void* user = nullptr;
  bool verbose = false;
  {
    const std::lock_guard<std::mutex> lock(s.mutex);
    sink = s.sink;
    user = s.user;
    verbose = s.verbose;
    ++s.in_flight;
  }
  ++t_sink_depth;
  if (sink != nullptr) {
    sink(blk, formatted.c_str(), user);
  } else {
    default_sink(blk, formatted.c_str(), verbose);
  }
  --t_sink_depth;
  {
    const std::lock_guard<std::mutex> lock(s.mutex);
    --s.in_flight;
  }
  s.idle.notify_all();
}

void set_sink(msg_sink_fn sink, void* user) {
  SinkState& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  s.sink = sink;
  s.user = sink != nullptr ? user : nullptr;
  // Wait for calls still inside the previous sink, except our own when called from a sink.
  s.idle.wait(lock, [&] { return s.in_flight <= t_sink_depth; });
}

void set_verbose(bool verbose) {
  SinkState& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  s.verbose = verbose;
}

}  // namespace kora::host

extern "C" void msg_sprintf(const msg_const_type* const_blk, const char* text) {
  kora::host::log_message(const_blk, text);
}

extern "C" void msg_set_sink(msg_sink_fn sink, void* user) { kora::host::set_sink(sink, user); }

extern "C" void msg_set_verbose(int verbose) { kora::host::set_verbose(verbose != 0); }
