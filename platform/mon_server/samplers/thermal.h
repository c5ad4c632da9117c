// SPDX-License-Identifier: Apache-2.0
// Temperatures and cooling devices: /sys/class/thermal.
#ifndef SAMPLERS_THERMAL_H
#define SAMPLERS_THERMAL_H

#include <vector>

#include "mon_records.h"
#include "samplers/file_reader.h"

namespace samplers {

// Zones in the order of their numbers, then cooling devices in theirs. One whose value cannot be
// read stays, with an unknown value.
int read_thermal(const file_reader& machine, std::vector<thermal_stat>& stats);

}  // namespace samplers

#endif
