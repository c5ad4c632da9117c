// SPDX-License-Identifier: Apache-2.0
// Memory that drivers share: ION heaps, or the CMA area and dma-bufs in their place.
#ifndef SAMPLERS_ION_H
#define SAMPLERS_ION_H

#include <cstdint>
#include <string_view>
#include <vector>

#include "mon_records.h"
#include "samplers/file_reader.h"

namespace samplers {

// Bytes in use of one file of debugfs' ion/heaps; unknown_u64 when the text is none of the forms.
uint64_t parse_ion_heap(std::string_view text);

// Bytes of all dma-bufs from debugfs' dma_buf/bufinfo, unknown_u64 without the line of totals.
uint64_t parse_dma_buf_total(std::string_view text);

// Takes the first source that there is: the board folder's ion/HEAP (bytes), debugfs' ion/heaps,
// and else what stands for them. `board` may be null. Debugfs takes locks of the camera's and the
// display's drivers and may wait for them: not for the event loop.
int read_ion(const file_reader& machine, const file_reader* board, std::vector<ion_info>& heaps);

}  // namespace samplers

#endif
