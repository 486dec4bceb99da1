#pragma once

#include <cstddef>

namespace bench {

// The exact heap memory of a piece of work. A program that uses this lists HeapPeak.cpp among its sources, which puts
// itself in front of malloc() for the whole program, its libraries included. One measurement at a time, of a program
// with one thread.

/// Counts from now on, from zero. What is there already is not to be released before the count ends.
void startHeapCount();

/// Ends the count.
///
/// @return the most bytes that were allocated at once, as the allocator rounds them, with its own header for each.
std::size_t finishHeapCount();

}  // namespace bench
