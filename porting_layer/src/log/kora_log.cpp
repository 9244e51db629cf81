#include "kora_log.h"

#include <cstdarg>
#include <cstdio>

namespace kora::log {

void message(const msg_const_type* site, const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  // Cut at 511 characters; the result of the cut is not reported.
  (void)std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  msg_sprintf(site, buffer);
}

}  // namespace kora::log
