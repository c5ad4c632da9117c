// SPDX-License-Identifier: Apache-2.0
// What the server gives up before it talks to anybody, however it was started: it reads, and what
// makes more of its rights than that is refused, should a client ever make it run what it likes.
#ifndef CONFINEMENT_H
#define CONFINEMENT_H

// Before other threads exist, which then have no more than this one. Leaves the four capabilities
// of the figures at most: CAP_BPF only while `use_bpf` and the kernel describes its types (BTF),
// CAP_PERFMON only for that and where it has counters. Refuses with EPERM to run programs, to write
// or change a file, /proc/PID/mem among them, to reach into other processes, and to enter
// namespaces. 0 or a negative errno: -EINVAL from a kernel without seccomp filters.
int confine(bool use_bpf);

// For once BPF has turned out not to be had: CAP_BPF goes, and CAP_PERFMON where nothing else needs
// it. The calling thread's.
void drop_bpf_capabilities();

#endif
