// Printing stored credentials: aligned text for people, JSON for scripts. Every text that
// comes from the store or from a certificate is escaped before it reaches the terminal.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "cli_details.h"

namespace kora::cli {

enum class Format { kText, kJson };

// `ls`: one "KIND NAME" line per record, followed by its fields when `long_form`; with JSON,
// an array of objects holding "kind", "name" and, when `long_form`, the fields.
void print_records(FILE* out, const std::vector<Record>& records, bool long_form, Format format);

// `show`: one record with all its fields.
void print_record(FILE* out, const Record& record, Format format);

// `text` as it may be printed: printable ASCII as it is, a backslash doubled, any other byte
// as \xHH. For every text that comes from the store, a certificate or the command line, so
// that no control character or other byte a terminal would act on reaches it.
std::string escaped(const std::string& text);

}  // namespace kora::cli
