// SPDX-License-Identifier: Apache-2.0
// The records of -o. The refresher's thread alone calls these.
#ifndef ZORVA_RECORD_FILE_H
#define ZORVA_RECORD_FILE_H

#include <string>

// Appends the text with the time in front to the output file, if there is one. A record that cannot
// be written is lost; the first of a row of them is logged, and that it goes on again.
void append_record(const std::string& text);

// After the last record: logs it when those that were still to be written cannot be.
void end_records();

#endif
