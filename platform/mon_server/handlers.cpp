// SPDX-License-Identifier: Apache-2.0
#include "handlers.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>
#include <variant>

#include "samplers/board.h"
#include "samplers/clock.h"
#include "samplers/command_line.h"
#include "samplers/ion.h"
#include "samplers/mounts.h"
#include "samplers/partitions.h"
#include "samplers/thermal.h"
#include "server_log.h"

namespace {

using mon_protocol::message_header;
using replier = std::function<void(answer)>;

// One thread for each of the five families, so that a driver that hangs holds up no other; as many
// mounts may be dead before all partitions are unknown.
constexpr size_t slow_threads = 5;

// A read on another thread takes the server 80 us, twice what the rest of the answer does, and what
// is swapped moves slowly.
constexpr int64_t zram_max_age_us = 5000000;

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
  const int error = source.sample_into(interval, read);
  if (error < 0) {
    return status_only(error);
  }
  return success(rates_of(interval.before.get(), *interval.now));
}

auto cpu_reader(machine_figures& figures) {
  return [&figures](samplers::cpu_sample& sample, const samplers::cpu_sample*) {
    return samplers::read_cpu_sample(*figures.root, sample);
  };
}

auto memory_reader(machine_figures& figures) {
  return [&figures](samplers::memory_sample& sample, const samplers::memory_sample*) {
    return samplers::read_memory_sample(*figures.root, sample);
  };
}

answer cpu_answer(session_state& state, machine_figures& figures) {
  return answer_rates(figures.cpus, state.cpus, cpu_reader(figures), samplers::cpu_rates);
}

answer block_answer(session_state& state, machine_figures& figures) {
  const auto read = [&](samplers::block_sample& sample, const samplers::block_sample* last) {
    const int error = samplers::read_block_sample(*figures.root, sample);
    samplers::doubt_zeros(last, sample);
    return error;
  };
  return answer_rates(figures.blocks, state.blocks, read, samplers::block_rates);
}

template <class rates>
answer net_answer(session_state& state, machine_figures& figures, rates rates_of) {
  const auto read = [&](samplers::net_sample& sample, const samplers::net_sample* last) {
    const int error = samplers::read_net_sample(*figures.root, sample);
    samplers::doubt_zeros(last, sample);
    return error;
  };
  return answer_rates(figures.net_devices, state.net_devices, read, rates_of);
}

// Both requests end the same interval: whoever asks for one after the other has the same rates.
template <mon_protocol::net_sub sub_command>
answer traffic_answer(session_state& state, machine_figures& figures) {
  if (!state.net_monitor) {
    return status_only(-EINVAL);
  }
  if constexpr (sub_command == mon_protocol::net_bandwidth) {
    return net_answer(state, figures, samplers::net_rates);
  } else {
    return net_answer(state, figures, samplers::net_rates_by_direction);
  }
}

answer memory_answer(session_state& state, machine_figures& figures) {
  const auto newest = [](const samplers::memory_sample*, const samplers::memory_sample& now) {
    return std::vector<meminfo>{now.info};
  };
  return answer_rates(figures.memory, state.memory, memory_reader(figures), newest);
}

void handle_process_list(const std::vector<uint8_t>& payload, session_state& state,
                         machine_figures& figures, const replier& reply) {
  int32_t mode = 0;
  if (payload.size() != sizeof mode) {
    return reply(status_only(-EINVAL));
  }
  std::memcpy(&mode, payload.data(), sizeof mode);
  process_lists::request wanted;
  wanted.threads = asks_for_threads(mode);
  wanted.sort_key = sort_key_of(mode);
  auto& interval = wanted.threads ? state.threads : state.processes;
  wanted.over = interval;
  interval.before.reset();  // so that its memory may serve for the new one
  const auto take = [reply, &interval, &state](const process_lists::result& made) {
    if (made.error < 0) {
      return reply(status_only(made.error));
    }
    if (made.over.now) {
      interval = made.over;
    }
    state.listed = made.list->processes;
    reply({0, made.list->bytes});
  };
  state.list_asked = figures.lists.ask(std::move(wanted), take);
}

answer command_answer(session_state& state, machine_figures& figures) {
  if (!state.listed) {
    return {};
  }
  return success(figures.commands.tell(*state.listed, state.told_commands));
}

answer enable_perf(session_state& state, machine_figures& figures) {
  return status_only(figures.counters.enable(state.counters));
}

answer disable_perf(session_state& state, machine_figures& figures) {
  return status_only(figures.counters.disable(state.counters));
}

answer perf_answer(session_state& state, machine_figures& figures) {
  perf_sample sample{};
  const int ret = figures.counters.read(state.counters, sample);
  return ret < 0 ? status_only(ret) : success(std::vector<perf_sample>{sample});
}

// The process lists start afresh. The CPUs' interval is kept: the next share of a CPU is still over
// the client's cycle, and not since boot.
void exit_process_monitoring(session_state& state, machine_figures& figures) {
  state.processes.reset();
  state.threads.reset();
  state.listed.reset();
  state.told_commands.clear();
  figures.commands.forget_unlisted();
}

// The files of CPUs and memory are read once for those who ask for these as well.
system_stat newest_system(session_state& state, machine_figures& figures) {
  const int64_t max_age_us = state.system.max_age_us();
  const auto read = [&](samplers::system_sample& sample, const samplers::system_sample*) {
    std::shared_ptr<const samplers::cpu_sample> cpus;
    std::shared_ptr<const samplers::memory_sample> memory;
    figures.cpus.newest(max_age_us, cpu_reader(figures), cpus);
    figures.memory.newest(max_age_us, memory_reader(figures), memory);
    figures.system_sampler.read(*figures.root, cpus.get(), memory.get(), sample);
    return 0;
  };
  figures.system.sample_into(state.system, read);
  return samplers::system_figures(state.system.before.get(), *state.system.now);
}

// A zram device that is being written back may keep its readers waiting.
void handle_system(session_state& state, machine_figures& figures, const replier& reply) {
  const auto finish = [&figures, reply, stat = newest_system(state, figures)] {
    system_stat whole = stat;
    whole.zram_data = figures.zram.data;
    whole.zram_used = figures.zram.used;
    reply(success(std::vector<system_stat>{whole}));
  };
  const std::vector<std::string>& devices = figures.system_sampler.zram_devices();
  const bool young =
      figures.zram_us != 0 && samplers::monotonic_us() - figures.zram_us < zram_max_age_us;
  if (devices.empty()) {
    figures.zram = {};
  }
  if (devices.empty() || young) {
    return finish();
  }
  const auto read = [root = figures.root, devices] {
    return bytes_of(std::vector<samplers::zram_use>{samplers::read_zram(*root, devices)});
  };
  const auto take = [&figures, finish](const std::shared_ptr<const slow_reader::bytes>& result) {
    figures.zram = {};
    if (result) {
      std::memcpy(&figures.zram, result->data(), sizeof figures.zram);
    }
    figures.zram_us = samplers::monotonic_us();
    finish();
  };
  figures.drivers.ask({"zram", "zram", &state}, zram_max_age_us, read, take);
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
  const int64_t max_age_us = cycle.max_age_us();
  cycle.note_request();
  reader.ask({key, key, &cycle}, max_age_us, read,
             [reply](const std::shared_ptr<const slow_reader::bytes>& result) {
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
  const void* client = nullptr;
  replier reply;
};

// What a question to the mount of `device` gives: a record, and behind it where on another mount
// the path leads if it does. One that was mounted over the path since the question was put, and may
// be dead, is another as well.
slow_reader::bytes read_on_mount(samplers::current_mounts& current, const std::string& device,
                                 std::string path) {
  const auto mounts = current.get();
  const auto is_elsewhere = [&] { return mounts->find(path).device != device; };
  part_info part = samplers::unknown_partition("");
  const bool found = is_elsewhere() || samplers::follow_links(*mounts, path) == 0;
  const bool elsewhere = found && is_elsewhere();
  if (found && !elsewhere) {
    samplers::read_partition(path.c_str(), part);
  }
  slow_reader::bytes result = bytes_of(std::vector<part_info>{part});
  if (elsewhere) {
    result.insert(result.end(), path.begin(), path.end());
  }
  return result;
}

void finish_partition(partition_answer& pending, size_t index, const part_info* figures) {
  if (figures != nullptr) {
    part_info& part = pending.parts[index];
    const part_info asked = part;
    part = *figures;
    std::memcpy(part.part_name, asked.part_name, sizeof part.part_name);
  }
  if (--pending.missing == 0) {
    pending.reply(success(pending.parts));
  }
}

// Asks the mount that the path lies on, and then those that its symbolic links lead to, up to
// `mounts_left`. Nothing else is touched: a mount that hangs holds up its own paths only.
void ask_partition(machine_figures& figures, const std::shared_ptr<partition_answer>& pending,
                   size_t index, int64_t max_age_us, const std::string& path, int mounts_left) {
  if (path.empty() || mounts_left == 0) {
    return finish_partition(*pending, index, nullptr);
  }
  const std::string lane = figures.mounts->get()->find(path).device;
  const auto read = [mounts = figures.mounts, lane, path] {
    return read_on_mount(*mounts, lane, path);
  };
  const auto take = [=, &figures](const std::shared_ptr<const slow_reader::bytes>& result) {
    if (result && result->size() > sizeof(part_info)) {
      return ask_partition(figures, pending, index, max_age_us,
                           {result->begin() + sizeof(part_info), result->end()}, mounts_left - 1);
    }
    finish_partition(*pending, index,
                     result ? reinterpret_cast<const part_info*>(result->data()) : nullptr);
  };
  figures.partitions.ask({path, lane, pending->client}, max_age_us, read, take);
}

void handle_partitions(const std::vector<uint8_t>& payload, session_state& state,
                       machine_figures& figures, const replier& reply) {
  constexpr size_t path_size = sizeof(part_info::part_name);
  const size_t count = payload.size() / path_size;
  if (payload.size() % path_size != 0 || count > mon_fields::description<part_info>::most) {
    return reply(status_only(-EINVAL));
  }
  std::vector<std::string> paths;
  auto pending = std::make_shared<partition_answer>();
  for (size_t i = 0; i < count; ++i) {
    const char* path = reinterpret_cast<const char*>(payload.data()) + i * path_size;
    paths.emplace_back(path, strnlen(path, path_size));
    pending->parts.push_back(samplers::unknown_partition(paths.back()));
    if (paths.back().size() == path_size) {
      return reply(status_only(-EINVAL));
    }
  }
  if (paths.empty()) {
    return reply({});
  }
  const int64_t max_age_us = state.partitions.max_age_us();
  state.partitions.note_request();
  pending->missing = paths.size();
  pending->client = &state;
  pending->reply = reply;
  constexpr int most_mounts = 8;
  for (size_t i = 0; i < paths.size(); ++i) {
    ask_partition(figures, pending, i, max_age_us, samplers::normal_path(paths[i]), most_mounts);
  }
}

void start_net_monitor(session_state& state, machine_figures& figures) {
  state.net_devices.reset();
  state.net_monitor = true;
  // The first sample, which the first answer's rates start from. That it may not be had now keeps
  // nobody from asking later.
  net_answer(state, figures, samplers::net_rates);
}

void exit_net_monitor(session_state& state, machine_figures&) {
  state.net_monitor = false;
  state.net_devices.reset();
}

void say_hello(session_state&, machine_figures&) {}

// What a request is answered by: with its payload, if it takes one; at once, or when `reply` is
// called; or with a status alone.
using payload_handler = void (*)(const std::vector<uint8_t>&, session_state&, machine_figures&,
                                 const replier&);
using late_handler = void (*)(session_state&, machine_figures&, const replier&);
using answer_handler = answer (*)(session_state&, machine_figures&);
using order_handler = void (*)(session_state&, machine_figures&);
using request_handler = std::variant<payload_handler, late_handler, answer_handler, order_handler>;

struct request_row {
  uint16_t command;
  uint16_t sub_command;
  request_handler handler;
};

using namespace mon_protocol;
constexpr request_row all_requests[] = {
    {cmd_connection, connection_hello, say_hello},
    {cmd_connection, connection_back_id, release_session},
    {cmd_cpu, cpu_usage_all, cpu_answer},
    {cmd_cpu, cpu_process_list, handle_process_list},
    {cmd_cpu, cpu_enable_perf, enable_perf},
    {cmd_cpu, cpu_disable_perf, disable_perf},
    {cmd_cpu, cpu_perf_data, perf_answer},
    {cmd_cpu, cpu_exit, exit_process_monitoring},
    {cmd_cpu, cpu_system, handle_system},
    {cmd_cpu, cpu_command_lines, command_answer},
    {cmd_peri, peri_thermal, handle_thermal},
    {cmd_peri, peri_meminfo, memory_answer},
    {cmd_peri, peri_ion, handle_ion},
    {cmd_peri, peri_partitions, handle_partitions},
    {cmd_peri, peri_blocks, block_answer},
    {cmd_bpu, bpu_ratio, handle_bpu},
    {cmd_vio, vio_fps, handle_vio},
    {cmd_net, net_start, start_net_monitor},
    {cmd_net, net_bandwidth, traffic_answer<net_bandwidth>},
    {cmd_net, net_exit, exit_net_monitor},
    {cmd_net, net_by_direction, traffic_answer<net_by_direction>},
};

}  // namespace

machine_figures::machine_figures(asio::io_context& loop, const server_options& options)
    : root(std::make_shared<const samplers::file_reader>(options.sysroot)),
      board(options.board.empty() ? nullptr
                                  : std::make_shared<const samplers::file_reader>(options.board)),
      lists(loop, root, {options.keep_files, options.use_bpf}),
      commands(
          [machine = root](int32_t pid) { return samplers::read_command_line(*machine, pid); }),
      drivers(loop, slow_threads),
      mounts(std::make_shared<samplers::current_mounts>()),
      partitions(loop, slow_threads) {}

void handle_request(const message_header& request, const std::vector<uint8_t>& payload,
                    session_state& state, machine_figures& figures, const replier& reply) {
  const auto row =
      std::find_if(std::begin(all_requests), std::end(all_requests), [&](const request_row& one) {
        return one.command == request.command && one.sub_command == request.sub_command;
      });
  if (row == std::end(all_requests)) {
    return reply(status_only(payload.empty() ? -ENOSYS : -EINVAL));
  }
  if (const auto* handler = std::get_if<payload_handler>(&row->handler)) {
    return (*handler)(payload, state, figures, reply);
  }
  if (!payload.empty()) {
    return reply(status_only(-EINVAL));
  }
  if (const auto* handler = std::get_if<late_handler>(&row->handler)) {
    return (*handler)(state, figures, reply);
  }
  if (const auto* handler = std::get_if<answer_handler>(&row->handler)) {
    return reply((*handler)(state, figures));
  }
  std::get<order_handler>(row->handler)(state, figures);
  reply({});
}

void release_session(session_state& state, machine_figures& figures) {
  figures.lists.drop(state.list_asked);
  figures.counters.release(state.counters);
  state = session_state();
  figures.commands.forget_unlisted();
}
