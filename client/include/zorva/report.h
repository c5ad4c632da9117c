// SPDX-License-Identifier: Apache-2.0
// Reports of all figures on standard output, in batch and text mode.
#ifndef ZORVA_REPORT_H
#define ZORVA_REPORT_H

class zorva;

// Body of the report thread: writes a report a cycle until it sees `to_exit`.
void zorva_thread(zorva* zorva);

#endif
