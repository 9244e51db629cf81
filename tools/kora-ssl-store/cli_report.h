// What the user sees: the store's diagnostic messages (raw only with -v) and the one line on
// stderr that every failure ends with.
#pragma once

#include <string>

namespace kora::cli {

// Installs the message sink for the whole run. It keeps the store's error-level messages so
// that a failure line can quote the last one; with `verbose` it also prints every message
// ("<LEVEL> <module>:<line> <text>") to stderr as it comes.
void diag_install(bool verbose);
bool diag_verbose();
// The last error-level message of the store since the last diag_clear(), line ends and
// trailing blanks dropped; empty when there was none.
std::string diag_last_error();
void diag_clear();

// The name the failure lines start with: "kora-ssl-store put".
void report_set_command(const std::string& command);

// Prints "kora-ssl-store <command>: <what>" on stderr, returns kExitFailed.
int fail(const std::string& what);
// Like fail(). With -v followed by the store's status: "<what>: store status -1 (KORA_ERROR):
// <last store error message>"; without, by a pointer to -v.
int fail_store(const std::string& what, int status);
// A refused command line: "<what> (see 'kora-ssl-store <command> --help')", returns kExitUsage.
int usage_error(const std::string& what);

// "KORA_ERROR", "KORA_ERR_INVALID_PARAM", ...; "unknown" for other values.
const char* status_name(int status);

}  // namespace kora::cli
