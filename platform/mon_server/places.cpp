// SPDX-License-Identifier: Apache-2.0
#include "places.h"

#include <algorithm>
#include <map>

namespace {

using place_list = std::vector<taken_place>;

const taken_place* longest_idle(const place_list& places) {
  const auto earlier = [](const taken_place& a, const taken_place& b) {
    return a.asked_us < b.asked_us;
  };
  const auto found = std::min_element(places.begin(), places.end(), earlier);
  return found == places.end() ? nullptr : &*found;
}

// The places of whoever has the most by `key_of`, and at least two more than `mine` has.
template <class function, class key>
place_list places_of_greediest(const place_list& places, function key_of, const key& mine) {
  std::map<key, place_list> by_key;
  for (const taken_place& place : places) {
    by_key[key_of(place.holder)].push_back(place);
  }
  const size_t least = by_key[mine].size() + 2;
  const auto fewer = [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); };
  const auto most = std::max_element(by_key.begin(), by_key.end(), fewer);
  return most->second.size() >= least ? most->second : place_list();
}

}  // namespace

uint32_t who_makes_room(const place_list& places, const place_holder& newcomer, int64_t now_us) {
  const taken_place* const idle = longest_idle(places);
  if (idle != nullptr && now_us - idle->asked_us >= idle_limit_us) {
    return idle->id;
  }
  const auto user = [](const place_holder& holder) { return holder.user; };
  const auto network = [](const place_holder& holder) { return holder.network; };
  place_list candidates = places_of_greediest(places, user, newcomer.user);
  if (candidates.empty()) {
    place_list of_user;
    std::copy_if(places.begin(), places.end(), std::back_inserter(of_user),
                 [&](const taken_place& place) { return place.holder.user == newcomer.user; });
    candidates = places_of_greediest(of_user, network, newcomer.network);
  }
  const taken_place* const found = longest_idle(candidates);
  return found == nullptr ? 0 : found->id;
}
