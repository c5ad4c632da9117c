// SPDX-License-Identifier: Apache-2.0
// What a record and each of its fields is. mon_records.h has one description a record; from it
// follow the bounds of answers, the counters' text and the tables of docs/protocol.md.
#ifndef MON_FIELDS_H
#define MON_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace mon_fields {

// How a value travels, and what stands for an unknown one.
enum class value_type {
  text,       // NUL-padded, no NUL where it fills its array; empty if there is none
  character,  // one letter
  int16,
  int32,
  int64,    // unknown_i64
  uint32,   // unknown_u32
  uint64,   // unknown_u64
  float32,  // NaN
  float64,  // NaN
};

enum class unit {
  none,
  percent,
  per_second,
  bytes,
  kib,
  kib_per_second,
  khz,
  millidegrees,  // Celsius
  seconds,
  milliseconds,
  microseconds,
  blocks,
  packets,
};

enum class kind {
  key,       // says what the record is of
  gauge,     // as it is at the time of the answer
  share,     // of the answered interval
  rate,      // over the answered interval
  amount,    // within the answered interval
  total,     // since boot, or since the device came up
  interval,  // length of the answered interval
  reserved,  // 0
};

constexpr const char* name_of(value_type type) {
  constexpr const char* names[] = {"char",   "char",   "int16", "int32", "int64",
                                   "uint32", "uint64", "float", "double"};
  return names[static_cast<size_t>(type)];
}

constexpr const char* name_of(unit measure) {
  constexpr const char* names[] = {"",    "percent", "a second", "bytes", "KiB",    "KiB/s",  "kHz",
                                   "m°C", "s",       "ms",       "µs",    "blocks", "packets"};
  return names[static_cast<size_t>(measure)];
}

constexpr const char* name_of(kind what) {
  constexpr const char* names[] = {"key",    "gauge", "share",    "rate",
                                   "amount", "total", "interval", "reserved"};
  return names[static_cast<size_t>(what)];
}

struct field {
  const char* name;
  size_t offset;
  size_t size;
  value_type type;
  mon_fields::unit unit;
  mon_fields::kind kind;
  const char* meaning;  // one line; empty where the name says it
};

// The description of a record, specialized behind each:
//   name     the record's
//   most     records in one answer at most
//   source   where the server reads it
//   fields   all of its fields
template <class record>
struct description;

// A field of `record`, as a description names the record that it is of.
#define MON_FIELD(member, its_unit, its_kind, meaning)                                 \
  mon_fields::field {                                                                  \
#member, offsetof(record, member), sizeof(record::member),                         \
        mon_fields::type_of < decltype(record::member)>(), mon_fields::unit::its_unit, \
        mon_fields::kind::its_kind, meaning                                            \
  }

template <class value>
constexpr value_type type_of() {
  if constexpr (std::is_array_v<value>) {
    return value_type::text;
  } else if constexpr (std::is_same_v<value, float>) {
    return value_type::float32;
  } else if constexpr (std::is_same_v<value, double>) {
    return value_type::float64;
  } else if constexpr (std::is_same_v<value, char>) {
    return value_type::character;
  } else if constexpr (std::is_same_v<value, int16_t>) {
    return value_type::int16;
  } else if constexpr (std::is_same_v<value, int32_t>) {
    return value_type::int32;
  } else if constexpr (std::is_same_v<value, int64_t>) {
    return value_type::int64;
  } else if constexpr (std::is_same_v<value, uint32_t>) {
    return value_type::uint32;
  } else {
    static_assert(std::is_same_v<value, uint64_t>, "a type that records do not have");
    return value_type::uint64;
  }
}

constexpr const field& field_of(const field& one) {
  return one;
}
template <class described>  // that has a field in it
constexpr const field& field_of(const described& one) {
  return one.field;
}

// True when every byte of the first `size` belongs to one field.
template <class described, size_t count>
constexpr bool cover(const described (&fields)[count], size_t size) {
  size_t bytes = 0;
  size_t end = 0;  // of the fields that lie one behind the other from the start
  for (size_t found = 0; found < count; ++found) {
    bytes += field_of(fields[found]).size;
    for (const described& one : fields) {
      if (field_of(one).offset == end) {
        end += field_of(one).size;
        break;
      }
    }
  }
  return end == size && bytes == size;
}

}  // namespace mon_fields

#endif
