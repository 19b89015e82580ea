// Test helper: counts global operator new calls of the test program.
#ifndef ZQ_TESTS_ALLOCATION_COUNTER_H
#define ZQ_TESTS_ALLOCATION_COUNTER_H

#include <atomic>

// Number of operator new calls made so far by this program.
long allocations();

#endif
