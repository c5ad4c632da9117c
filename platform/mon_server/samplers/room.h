// SPDX-License-Identifier: Apache-2.0
// Giving memory back once a crowd has gone.
#ifndef SAMPLERS_ROOM_H
#define SAMPLERS_ROOM_H

#include <cstddef>
#include <vector>

namespace samplers {

// Whether a container with room for so many has far more of it than it needs.
inline bool is_too_large(size_t room, size_t used) {
  constexpr size_t few = 1024;
  return room > few + 4 * used;
}

// Assigning {} would keep the room.
template <class record>
void empty_with_room(std::vector<record>& records) {
  std::vector<record>().swap(records);
}

// True when it had any to give back.
template <class record>
bool give_room_back(std::vector<record>& records) {
  const bool large = is_too_large(records.capacity(), records.size());
  if (large) {
    records.shrink_to_fit();
  }
  return large;
}

}  // namespace samplers

#endif
