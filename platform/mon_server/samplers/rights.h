// SPDX-License-Identifier: Apache-2.0
// What the kernel lets this process do: capabilities(7) and namespaces(7).
#ifndef SAMPLERS_RIGHTS_H
#define SAMPLERS_RIGHTS_H

namespace samplers {

// <linux/capability.h> of Linux 5.8; older ones have neither name.
constexpr int cap_perfmon = 38;
constexpr int cap_bpf = 39;

// The calling thread has the capability in effect, in its own user namespace.
bool has_capability(int capability);

// The namespaces that the system started with. Capabilities of another user namespace count only
// for what belongs to it.
bool in_initial_user_namespace();
bool in_initial_pid_namespace();

}  // namespace samplers

#endif
