// SPDX-License-Identifier: Apache-2.0
// mon_server --check: where each family of figures is read from on this machine, or why it is not.
#ifndef SELF_CHECK_H
#define SELF_CHECK_H

#include <string>
#include <vector>

#include "self_check/findings.h"
#include "server_options.h"

// What goes before the table: version, kernel, user, and the capabilities that figures want. For
// before the server gives up rights.
std::string check_head(const server_options& options);

// Reads each family once with the samplers that serve it, and looks at what came of it. Binds no
// port and writes nothing. A driver that does not answer takes a second.
std::vector<finding> check_all(const server_options& options);

#endif
