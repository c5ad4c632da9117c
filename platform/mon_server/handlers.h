// SPDX-License-Identifier: Apache-2.0
// What the server answers: one function a request, from a session's state and the machine's figures
// to records.
#ifndef HANDLERS_H
#define HANDLERS_H

#include <asio/io_context.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "command_lines.h"
#include "counters_owner.h"
#include "mon_protocol.h"
#include "process_lists.h"
#include "samplers/blocks.h"
#include "samplers/cpu.h"
#include "samplers/file_reader.h"
#include "samplers/memory.h"
#include "samplers/mounts.h"
#include "samplers/net_devices.h"
#include "samplers/processes.h"
#include "samplers/system.h"
#include "server_options.h"
#include "slow_reader.h"
#include "snapshots.h"

// The machine as all sessions see it.
struct machine_figures {
  machine_figures(asio::io_context& loop, const server_options& options);

  // Shared with the reads that may outlive this.
  std::shared_ptr<const samplers::file_reader> root;
  std::shared_ptr<const samplers::file_reader> board;  // null without a board folder

  snapshot_source<samplers::cpu_sample> cpus;
  snapshot_source<samplers::block_sample> blocks;
  snapshot_source<samplers::net_sample> net_devices;
  snapshot_source<samplers::memory_sample> memory;
  snapshot_source<samplers::system_sample> system;
  samplers::system_sampler system_sampler;
  samplers::zram_use zram;  // as read last
  int64_t zram_us = 0;      // monotonic, when that was; 0: never
  process_lists lists;
  command_lines commands;
  counters_owner counters;
  slow_reader drivers;                               // thermal, ION, BPU, VIO, zram
  std::shared_ptr<samplers::current_mounts> mounts;  // shared with reads that may outlive this
  slow_reader partitions;  // apart from the drivers: dead mounts take none of their threads
};

// What a session holds on the server.
struct session_state {
  rate_interval<samplers::cpu_sample> cpus;
  process_lists::interval processes;
  process_lists::interval threads;
  uint64_t list_asked = 0;  // number of the last request for a list
  std::shared_ptr<const samplers::process_identities> listed;  // answered last; null: none yet
  command_lines::told_lines told_commands;
  rate_interval<samplers::block_sample> blocks;
  rate_interval<samplers::net_sample> net_devices;
  rate_interval<samplers::memory_sample> memory;
  rate_interval<samplers::system_sample> system;
  client_cycle thermal, ion, bpu, vio, partitions;
  bool net_monitor = false;
  counters_claim counters;
};

struct answer {
  int32_t status = 0;  // 0, or a negative errno; then there is no payload
  std::vector<uint8_t> payload;
};

// Answers one request, at once or later on the event loop. `state` must live until then. A request
// that makes no sense is answered with -EINVAL, an unknown one with -ENOSYS.
void handle_request(const mon_protocol::message_header& request,
                    const std::vector<uint8_t>& payload, session_state& state,
                    machine_figures& figures, const std::function<void(answer)>& reply);

// Lets go of all that the session holds.
void release_session(session_state& state, machine_figures& figures);

#endif
