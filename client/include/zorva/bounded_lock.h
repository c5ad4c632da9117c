// SPDX-License-Identifier: Apache-2.0
// A lock that is not waited for for ever.
#ifndef ZORVA_BOUNDED_LOCK_H
#define ZORVA_BOUNDED_LOCK_H

#include <mutex>

// Takes `lock` within `limit_ms`, or returns without it. Not std::timed_mutex, whose waiting
// ThreadSanitizer does not know.
std::unique_lock<std::mutex> lock_within(std::mutex& lock, int limit_ms);

#endif
