// SPDX-License-Identifier: Apache-2.0
// Who goes when the server is full and another client comes.
#ifndef PLACES_H
#define PLACES_H

#include <cstdint>
#include <vector>

#include "place_holder.h"

struct taken_place {
  uint32_t id;  // of the session, never 0
  place_holder holder;
  int64_t asked_us;  // monotonic, when the session asked last, or came
};

// A session that has asked nothing for so long makes room.
constexpr int64_t idle_limit_us = 10 * 1000000LL;

// The session that makes room for one of `newcomer`, 0 when none does: the one that has asked
// nothing for the longest time, if that is beyond the limit; else one of whoever has two places or
// more above what the newcomer has, users of this machine first (all others count as one), then
// addresses of one user. So nobody can have all places while others want some.
uint32_t who_makes_room(const std::vector<taken_place>& places, const place_holder& newcomer,
                        int64_t now_us);

#endif
