// What the server answers: one function a request, from a session's state and the machine's figures
// to records.
#ifndef HANDLERS_H
#define HANDLERS_H

#include <array>
#include <asio/io_context.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <tuple>
#include <vector>

#include "counters_owner.h"
#include "mon_protocol.h"
#include "samplers/blocks.h"
#include "samplers/cpu.h"
#include "samplers/file_reader.h"
#include "samplers/memory.h"
#include "samplers/net_devices.h"
#include "samplers/process_sampler.h"
#include "samplers/processes.h"
#include "server_options.h"
#include "slow_reader.h"
#include "snapshots.h"

// The process lists that were made last. Clients of one view and sort key mostly ask for the same
// one; those whose cycles are out of step see other samples.
class ranked_processes {
 public:
  // The list of the interval by the key: one that was made before, or what `make` () puts into it.
  template <class function>
  const std::vector<uint8_t>& list(const rate_interval<samplers::process_sample>& interval,
                                   int sort_key, function make) {
    const identity wanted{interval.before ? interval.before->time_us : -1, interval.now->time_us,
                          interval.now->threads, sort_key};
    for (const made_list& one : made) {
      if (one.of == wanted) {
        return one.bytes;
      }
    }
    next = (next + 1) % made.size();
    made[next].of = wanted;
    made[next].bytes = make();
    return made[next].bytes;
  }

 private:
  // Times of the two samples (-1 without a first), view, sort key.
  using identity = std::tuple<int64_t, int64_t, bool, int>;
  struct made_list {
    identity of{};
    std::vector<uint8_t> bytes;
  };
  std::array<made_list, 4> made;
  size_t next = 0;
};

// The machine as all sessions see it.
struct machine_figures {
  machine_figures(asio::io_context& loop, const server_options& options);

  // Shared with the reads that may outlive this.
  std::shared_ptr<const samplers::file_reader> root;
  std::shared_ptr<const samplers::file_reader> board;  // null without a board folder

  snapshot_source<samplers::cpu_sample> cpus;
  snapshot_source<samplers::process_sample> processes;
  snapshot_source<samplers::process_sample> threads;
  snapshot_source<samplers::block_sample> blocks;
  snapshot_source<samplers::net_sample> net_devices;
  snapshot_source<samplers::memory_sample> memory;
  samplers::process_sampler process_sampler;
  samplers::process_ranking process_ranking;
  ranked_processes ranked;
  bool way_told = false;  // the log says how processes are read
  counters_owner counters;
  slow_reader drivers;     // thermal, ION, BPU, VIO
  slow_reader partitions;  // apart from the drivers: dead mounts take none of their threads
};

// What a session holds on the server.
struct session_state {
  rate_interval<samplers::cpu_sample> cpus;
  rate_interval<samplers::process_sample> processes;
  rate_interval<samplers::process_sample> threads;
  rate_interval<samplers::block_sample> blocks;
  rate_interval<samplers::net_sample> net_devices;
  rate_interval<samplers::memory_sample> memory;
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
