// Diagnostic sink and failure lines.
#include "cli_report.h"

#include <cstdio>
#include <mutex>

#include "commands.h"
#include "kora_host_km.h"
#include "kora_net_ssl.h"
#include "msg_diag.h"

namespace kora::cli {
namespace {

struct DiagState {
  std::mutex mutex;
  bool verbose = false;
  std::string last_error;
  std::string command = "kora-ssl-store";
};

DiagState& diag() {
  static DiagState s;
  return s;
}

std::string trimmed(const char* text) {
  std::string s = text != nullptr ? text : "";
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) {
    s.pop_back();
  }
  // Some texts end in a line break followed by blanks; keep the one line whole.
  for (char& c : s) {
    if (c == '\n' || c == '\r') {
      c = ' ';
    }
  }
  return s;
}

const char* level_word(uint32_t mask) {
  if ((mask & MSG_LEGACY_ERROR) != 0) {
    return "ERROR";
  }
  if ((mask & MSG_LEGACY_HIGH) != 0) {
    return "HIGH";
  }
  return "MSG";
}

void sink(const msg_const_type* blk, const char* text, void* /*user*/) {
  DiagState& s = diag();
  const std::string line = trimmed(text);
  const std::lock_guard<std::mutex> lock(s.mutex);
  if ((blk->desc.ss_mask & MSG_LEGACY_ERROR) != 0 && !line.empty()) {
    s.last_error = line;
  }
  if (s.verbose) {
    (void)std::fprintf(stderr, "%s %s:%u %s\n", level_word(blk->desc.ss_mask),
                       blk->fname != nullptr ? blk->fname : "?", static_cast<unsigned>(blk->desc.line),
                       line.c_str());
  }
}

std::string prefix() {
  const std::lock_guard<std::mutex> lock(diag().mutex);
  return diag().command;
}

}  // namespace

void diag_install(bool verbose) {
  {
    const std::lock_guard<std::mutex> lock(diag().mutex);
    diag().verbose = verbose;
  }
  msg_set_sink(&sink, nullptr);
}

bool diag_verbose() {
  const std::lock_guard<std::mutex> lock(diag().mutex);
  return diag().verbose;
}

std::string diag_last_error() {
  const std::lock_guard<std::mutex> lock(diag().mutex);
  return diag().last_error;
}

void diag_clear() {
  const std::lock_guard<std::mutex> lock(diag().mutex);
  diag().last_error.clear();
}

void report_set_command(const std::string& command) {
  const std::lock_guard<std::mutex> lock(diag().mutex);
  diag().command = "kora-ssl-store " + command;
}

int fail(const std::string& what) {
  (void)std::fprintf(stderr, "%s: %s\n", prefix().c_str(), what.c_str());
  return kExitFailed;
}

int fail_store(const std::string& what, int status) {
  std::string line = what;
  if (diag_verbose()) {
    line += ": store status " + std::to_string(status) + " (" + status_name(status) + ")";
    if (const std::string last = diag_last_error(); !last.empty()) {
      line += ": " + last;
    }
  }
  // The key service's own reason, when its last call failed (a refused root key, say).
  if (const std::string km = kora_km_last_error(); !km.empty()) {
    line += " (key service: " + km + ")";
  }
  if (!diag_verbose()) {
    line += " (run again with -v for the store's status and messages)";
  }
  return fail(line);
}

int usage_error(const std::string& what) {
  const std::string p = prefix();
  (void)std::fprintf(stderr, "%s: %s (see '%s --help')\n", p.c_str(), what.c_str(), p.c_str());
  return kExitUsage;
}

const char* status_name(int status) {
  switch (status) {
    case KORA_OK:
      return "KORA_OK";
    case KORA_ERROR:
      return "KORA_ERROR";
    case KORA_ERR_INVALID_PARAM:
      return "KORA_ERR_INVALID_PARAM";
    case KORA_ERR_NO_MEMORY:
      return "KORA_ERR_NO_MEMORY";
    case KORA_ERR_NOT_SUPPORTED:
      return "KORA_ERR_NOT_SUPPORTED";
    default:
      return "unknown";
  }
}

}  // namespace kora::cli
