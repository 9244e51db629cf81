// The PSK parsing benchmarks link a stand-in for the store's SSL_cert_store (the parser and
// the store call live in separate objects of the store archive, so the program's own
// definition wins at link time): the parsed table is handed over and dropped, so that only
// the parsing is measured.
#pragma once

#include <cstddef>

namespace kora::bench {

// Size of the last table handed to the stand-in, or 0.
size_t last_stored_table_size();

}  // namespace kora::bench
