#include "handlers.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>

#include "samplers/board.h"
#include "samplers/ion.h"
#include "samplers/partitions.h"
#include "samplers/thermal.h"
#include "server_log.h"

namespace {

using mon_protocol::message_header;
using replier = std::function<void(answer)>;

// One thread for each of the four families, so that a driver that hangs holds up no other; as many
// mounts may be dead before all partitions are unknown.
constexpr size_t slow_threads = 4;
constexpr size_t most_partitions = 16;

template <class record>
std::vector<uint8_t> bytes_of(const std::vector<record>& records) {
  static_assert(std::is_trivially_copyable_v<record>);
  std::vector<uint8_t> bytes(records.size() * sizeof(record));
  if (!bytes.empty()) {
    std::memcpy(bytes.data(), records.data(), bytes.size());
  }
  return bytes;
}

answer status_only(int error) {
  return {error, {}};
}

template <class record>
answer success(const std::vector<record>& records) {
  return {0, bytes_of(records)};
}

// Ends the session's interval now and answers with its rates.
template <class sample, class reader, class rates>
answer answer_rates(snapshot_source<sample>& source, rate_interval<sample>& interval, reader read,
                    rates rates_of) {
  const int error = source.end_interval(interval, read);
  if (error < 0) {
    return status_only(error);
  }
  return success(rates_of(interval.before.get(), *interval.now));
}

answer cpu_answer(session_state& state, machine_figures& figures) {
  const auto read = [&](samplers::cpu_sample& sample, const samplers::cpu_sample*) {
    return samplers::read_cpu_sample(*figures.root, sample);
  };
  return answer_rates(figures.cpus, state.cpus, read, samplers::cpu_rates);
}

answer block_answer(session_state& state, machine_figures& figures) {
  const auto read = [&](samplers::block_sample& sample, const samplers::block_sample* last) {
    const int error = samplers::read_block_sample(*figures.root, sample);
    samplers::doubt_zeros(last, sample);
    return error;
  };
  return answer_rates(figures.blocks, state.blocks, read, samplers::block_rates);
}

answer net_answer(session_state& state, machine_figures& figures) {
  const auto read = [&](samplers::net_sample& sample, const samplers::net_sample* last) {
    const int error = samplers::read_net_sample(*figures.root, sample);
    samplers::doubt_zeros(last, sample);
    return error;
  };
  return answer_rates(figures.net_devices, state.net_devices, read, samplers::net_rates);
}

answer memory_answer(session_state& state, machine_figures& figures) {
  const auto read = [&](samplers::memory_sample& sample, const samplers::memory_sample*) {
    return samplers::read_memory_sample(*figures.root, sample);
  };
  const auto newest = [](const samplers::memory_sample*, const samplers::memory_sample& now) {
    return std::vector<meminfo>{now.info};
  };
  return answer_rates(figures.memory, state.memory, read, newest);
}

answer process_answer(const std::vector<uint8_t>& payload, session_state& state,
                      machine_figures& figures) {
  int32_t mode = 0;
  if (payload.size() != sizeof mode) {
    return status_only(-EINVAL);
  }
  std::memcpy(&mode, payload.data(), sizeof mode);
  const int sort_key = mode & 0xff;
  const bool threads = (mode & 0xff00) == 0xff00;
  auto& interval = threads ? state.threads : state.processes;
  const int64_t young_us = interval.young_us();
  const auto read = [&](samplers::process_sample& sample, const samplers::process_sample*) {
    return figures.process_sampler.read(threads, young_us, sample);
  };
  const int error = (threads ? figures.threads : figures.processes).end_interval(interval, read);
  if (error < 0) {
    return status_only(error);
  }
  if (!std::exchange(figures.way_told, true)) {
    server_log(log_priority::info, figures.process_sampler.way());
  }
  const auto make = [&] {
    top_pid_info top{};
    figures.process_ranking.top(interval.before.get(), *interval.now, sort_key, top);
    const size_t size =
        offsetof(top_pid_info, send_pid_info) + static_cast<size_t>(top.pid_num) * sizeof(pid_msg);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&top);
    return std::vector<uint8_t>(bytes, bytes + size);
  };
  return {0, figures.ranked.list(interval, sort_key, make)};
}

answer perf_answer(session_state& state, machine_figures& figures) {
  perf_sample sample{};
  const int ret = figures.counters.read(state.counters, sample);
  return ret < 0 ? status_only(ret) : success(std::vector<perf_sample>{sample});
}

// The process lists start afresh. The CPUs' interval is kept: the next share of a CPU is still over
// the client's cycle, and not since boot.
void exit_process_monitoring(session_state& state) {
  state.processes.reset();
  state.threads.reset();
}

void handle_cpu(uint16_t sub_command, const std::vector<uint8_t>& payload, session_state& state,
                machine_figures& figures, const replier& reply) {
  switch (sub_command) {
    case mon_protocol::cpu_usage_all:
      return reply(cpu_answer(state, figures));
    case mon_protocol::cpu_process_list:
      return reply(process_answer(payload, state, figures));
    case mon_protocol::cpu_enable_perf:
      return reply(status_only(figures.counters.enable(state.counters)));
    case mon_protocol::cpu_disable_perf:
      return reply(status_only(figures.counters.disable(state.counters)));
    case mon_protocol::cpu_perf_data:
      return reply(perf_answer(state, figures));
    case mon_protocol::cpu_exit:
      exit_process_monitoring(state);
      return reply({});
    default:
      return reply(status_only(-ENOSYS));
  }
}

// Has a driver's figures read on another thread. `sampler` fills records and returns 0 or a
// negative errno; no records is a good answer as well.
template <class record, class sampler>
void answer_slowly(slow_reader& reader, const char* key, client_cycle& cycle, sampler sample,
                   const replier& reply) {
  const auto read = [sample]() -> slow_reader::bytes {
    std::vector<record> records;
    sample(records);
    return bytes_of(records);
  };
  const int64_t young_us = cycle.young_us();
  cycle.ask();
  reader.ask(key, young_us, read, [reply](const std::shared_ptr<const slow_reader::bytes>& result) {
    reply(result ? answer{0, *result} : status_only(-ETIMEDOUT));
  });
}

void handle_thermal(session_state& state, machine_figures& figures, const replier& reply) {
  const auto sample = [root = figures.root](std::vector<thermal_stat>& records) {
    return samplers::read_thermal(*root, records);
  };
  answer_slowly<thermal_stat>(figures.drivers, "thermal", state.thermal, sample, reply);
}

void handle_ion(session_state& state, machine_figures& figures, const replier& reply) {
  const auto sample = [root = figures.root, board = figures.board](std::vector<ion_info>& records) {
    return samplers::read_ion(*root, board.get(), records);
  };
  answer_slowly<ion_info>(figures.drivers, "ion", state.ion, sample, reply);
}

void handle_bpu(session_state& state, machine_figures& figures, const replier& reply) {
  const auto sample = [root = figures.root, board = figures.board](std::vector<bpu_stat>& records) {
    return samplers::read_bpu(*root, board.get(), records);
  };
  answer_slowly<bpu_stat>(figures.drivers, "bpu", state.bpu, sample, reply);
}

void handle_vio(session_state& state, machine_figures& figures, const replier& reply) {
  const auto sample = [board = figures.board](std::vector<vio_stat>& records) {
    return samplers::read_vio(board.get(), records);
  };
  answer_slowly<vio_stat>(figures.drivers, "vio", state.vio, sample, reply);
}

// The partitions of one request, which are read apart from each other.
struct partition_answer {
  std::vector<part_info> parts;
  size_t missing = 0;
  replier reply;
};

part_info unknown_partition(const std::string& path) {
  part_info part{};
  path.copy(part.part_name, sizeof part.part_name);
  part.f_bavail = part.f_blocks = part.f_frsize = part.blocks_used = unknown_u64;
  return part;
}

void ask_partition(machine_figures& figures, const std::shared_ptr<partition_answer>& pending,
                   size_t index, int64_t young_us, const std::string& path) {
  const auto read = [path] {
    part_info part = unknown_partition(path);
    samplers::read_partition(path.c_str(), part);
    return bytes_of(std::vector<part_info>{part});
  };
  const auto take = [pending, index](const std::shared_ptr<const slow_reader::bytes>& result) {
    if (result) {
      std::memcpy(&pending->parts[index], result->data(), sizeof(part_info));
    }
    if (--pending->missing == 0) {
      pending->reply(success(pending->parts));
    }
  };
  figures.partitions.ask(path, young_us, read, take);
}

void handle_partitions(const std::vector<uint8_t>& payload, session_state& state,
                       machine_figures& figures, const replier& reply) {
  constexpr size_t path_size = sizeof(part_info::part_name);
  const size_t count = payload.size() / path_size;
  if (payload.size() % path_size != 0 || count > most_partitions) {
    return reply(status_only(-EINVAL));
  }
  std::vector<std::string> paths;
  auto pending = std::make_shared<partition_answer>();
  for (size_t i = 0; i < count; ++i) {
    const char* path = reinterpret_cast<const char*>(payload.data()) + i * path_size;
    paths.emplace_back(path, strnlen(path, path_size));
    pending->parts.push_back(unknown_partition(paths.back()));
    if (paths.back().size() == path_size) {
      return reply(status_only(-EINVAL));
    }
  }
  if (paths.empty()) {
    return reply({});
  }
  const int64_t young_us = state.partitions.young_us();
  state.partitions.ask();
  pending->missing = paths.size();
  pending->reply = reply;
  for (size_t i = 0; i < paths.size(); ++i) {
    ask_partition(figures, pending, i, young_us, paths[i]);
  }
}

void handle_peri(uint16_t sub_command, const std::vector<uint8_t>& payload, session_state& state,
                 machine_figures& figures, const replier& reply) {
  switch (sub_command) {
    case mon_protocol::peri_thermal:
      return handle_thermal(state, figures, reply);
    case mon_protocol::peri_meminfo:
      return reply(memory_answer(state, figures));
    case mon_protocol::peri_ion:
      return handle_ion(state, figures, reply);
    case mon_protocol::peri_partitions:
      return handle_partitions(payload, state, figures, reply);
    case mon_protocol::peri_blocks:
      return reply(block_answer(state, figures));
    default:
      return reply(status_only(-ENOSYS));
  }
}

void handle_net(uint16_t sub_command, session_state& state, machine_figures& figures,
                const replier& reply) {
  switch (sub_command) {
    case mon_protocol::net_start:
      state.net_devices.reset();
      state.net_monitor = true;
      // The first sample, which the first answer's rates start from. That it may not be had now
      // keeps nobody from asking later.
      net_answer(state, figures);
      return reply({});
    case mon_protocol::net_bandwidth:
      return reply(state.net_monitor ? net_answer(state, figures) : status_only(-EINVAL));
    case mon_protocol::net_exit:
      state.net_monitor = false;
      state.net_devices.reset();
      return reply({});
    default:
      return reply(status_only(-ENOSYS));
  }
}

bool takes_payload(const message_header& request) {
  return (request.command == mon_protocol::cmd_cpu &&
          request.sub_command == mon_protocol::cpu_process_list) ||
         (request.command == mon_protocol::cmd_peri &&
          request.sub_command == mon_protocol::peri_partitions);
}

void handle_connection(uint16_t sub_command, session_state& state, machine_figures& figures,
                       const replier& reply) {
  if (sub_command == mon_protocol::connection_back_id) {
    release_session(state, figures);
  }
  const bool known = sub_command == mon_protocol::connection_hello ||
                     sub_command == mon_protocol::connection_back_id;
  reply(status_only(known ? 0 : -ENOSYS));
}

}  // namespace

machine_figures::machine_figures(asio::io_context& loop, const server_options& options)
    : root(std::make_shared<const samplers::file_reader>(options.sysroot)),
      board(options.board.empty() ? nullptr
                                  : std::make_shared<const samplers::file_reader>(options.board)),
      process_sampler(root, {options.keep_files, options.use_bpf}),
      drivers(loop, slow_threads),
      partitions(loop, slow_threads) {}

void handle_request(const message_header& request, const std::vector<uint8_t>& payload,
                    session_state& state, machine_figures& figures, const replier& reply) {
  if (!payload.empty() && !takes_payload(request)) {
    return reply(status_only(-EINVAL));
  }
  switch (request.command) {
    case mon_protocol::cmd_connection:
      return handle_connection(request.sub_command, state, figures, reply);
    case mon_protocol::cmd_cpu:
      return handle_cpu(request.sub_command, payload, state, figures, reply);
    case mon_protocol::cmd_peri:
      return handle_peri(request.sub_command, payload, state, figures, reply);
    case mon_protocol::cmd_bpu:
      return request.sub_command == mon_protocol::bpu_ratio ? handle_bpu(state, figures, reply)
                                                            : reply(status_only(-ENOSYS));
    case mon_protocol::cmd_vio:
      return request.sub_command == mon_protocol::vio_fps ? handle_vio(state, figures, reply)
                                                          : reply(status_only(-ENOSYS));
    case mon_protocol::cmd_net:
      return handle_net(request.sub_command, state, figures, reply);
    default:
      return reply(status_only(-ENOSYS));
  }
}

void release_session(session_state& state, machine_figures& figures) {
  figures.counters.release(state.counters);
  state = session_state();
}
