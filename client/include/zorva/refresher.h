// SPDX-License-Identifier: Apache-2.0
// The screen refresher: the only thread that paints.
#ifndef ZORVA_REFRESHER_H
#define ZORVA_REFRESHER_H

class windows_manager;

// Thread function: paints the panels that have new text, and appends it to the output file if there
// is one, frame by frame until the program exits.
void reflesh_thread(windows_manager* wind_mgr);

// One frame: applies a change of the terminal's size, and paints the panels that have new text or
// lost theirs.
void paint_frame(windows_manager& winds);

#endif
