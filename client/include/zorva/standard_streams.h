// SPDX-License-Identifier: Apache-2.0
// Standard input, output and error of a program that was started without them.
#ifndef ZORVA_STANDARD_STREAMS_H
#define ZORVA_STANDARD_STREAMS_H

// Puts /dev/null in the place of each that is closed. Without this the next file that is opened
// takes the place, and is read for keys or written reports to. To be called before anything is
// opened.
void fill_standard_streams();

#endif
