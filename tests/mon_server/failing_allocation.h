// SPDX-License-Identifier: Apache-2.0
// Allocations that fail in the test's process, as under `ulimit -v`.
#ifndef FAILING_ALLOCATION_H
#define FAILING_ALLOCATION_H

#include <atomic>
#include <cstddef>

// One of more bytes fails. Without effect under AddressSanitizer.
extern std::atomic<size_t> largest_allocation;

#endif
