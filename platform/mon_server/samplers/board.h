// SPDX-License-Identifier: Apache-2.0
// Figures that each board's drivers export in a way of their own: BPU cores and VIO pipelines. A
// board folder leads to them, with a file (or a link to a driver's file) a figure, named as the
// figure is to be shown.
#ifndef SAMPLERS_BOARD_H
#define SAMPLERS_BOARD_H

#include <vector>

#include "mon_records.h"
#include "samplers/file_reader.h"

namespace samplers {

// A file that holds no number is listed with an unknown figure; names are in natural order. `board`
// may be null.

// Percent busy from the board folder's bpu/CORE, else from the load of devfreq devices that are
// called NPU or BPU.
int read_bpu(const file_reader& machine, const file_reader* board, std::vector<bpu_stat>& cores);

// Frames a second from the board folder's vio/PIPELINE.
int read_vio(const file_reader* board, std::vector<vio_stat>& pipelines);

}  // namespace samplers

#endif
