// Counts the heap bytes in use between start and stop, for the calls that the linker routes
// through the wrappers in heap_counter.cpp (malloc, calloc, realloc and free of the objects
// linked statically into the program, the store archive among them).
#pragma once

#include <cstddef>

namespace kora::bench {

void heap_count_start();
// Stops counting; returns the highest number of requested bytes live at one time.
size_t heap_count_stop();

}  // namespace kora::bench
