// Counts what a program takes from the heap with operator new, which allocations.cpp replaces.

#pragma once

#include <cstdint>

// How often that was so far, on all threads.
int64_t Allocations();
