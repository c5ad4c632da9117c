#include "samplers/task_iterator.h"

#include <bpf/bpf.h>
#include <bpf/btf.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string_view>

#include "samplers/text.h"

namespace samplers {
namespace {

// The inode number of the initial pid namespace (PROC_PID_INIT_INO in the kernel's proc_ns.h). The
// records have the pids of that one.
constexpr ino_t initial_pid_namespace = 0xEFFFFFFC;

struct btf_deleter {
  void operator()(btf* types) const { btf__free(types); }
};
using kernel_types = std::unique_ptr<btf, btf_deleter>;

// Where a member lies in a structure of the running kernel.
struct member_place {
  int offset = -1;    // bytes; -1 if there is no such member
  uint32_t type = 0;  // BTF id of the member's type
};

uint32_t without_qualifiers(const btf* types, uint32_t id) {
  const btf_type* type = btf__type_by_id(types, id);
  while (type != nullptr && (btf_is_mod(type) || btf_is_typedef(type))) {
    id = type->type;
    type = btf__type_by_id(types, id);
  }
  return id;
}

// Looks into unnamed structures and unions too, as C does.
member_place find_member(const btf* types, uint32_t structure, std::string_view name) {
  const btf_type* type = btf__type_by_id(types, without_qualifiers(types, structure));
  if (type == nullptr || !btf_is_composite(type)) {
    return {};
  }
  const btf_member* members = btf_members(type);
  for (uint32_t i = 0; i < btf_vlen(type); ++i) {
    const char* member_name = btf__name_by_offset(types, members[i].name_off);
    const int offset = static_cast<int>(btf_member_bit_offset(type, i) / 8);
    if (member_name == name) {
      return {offset, members[i].type};
    }
    if (member_name != nullptr && *member_name == '\0') {
      const member_place inner = find_member(types, members[i].type, name);
      if (inner.offset >= 0) {
        return {offset + inner.offset, inner.type};
      }
    }
  }
  return {};
}

// The offset of a member of a member: {"se", "sum_exec_runtime"} of task_struct. -1 if none.
int offset_of(const btf* types, const char* structure, std::initializer_list<const char*> path) {
  const int id = btf__find_by_name_kind(types, structure, BTF_KIND_STRUCT);
  member_place place{id < 0 ? -1 : 0, id < 0 ? 0 : static_cast<uint32_t>(id)};
  for (const char* name : path) {
    if (place.offset < 0) {
      break;
    }
    const member_place inner = find_member(types, place.type, name);
    place = {inner.offset < 0 ? -1 : place.offset + inner.offset, inner.type};
  }
  return place.offset;
}

// Registers as the BPF calling convention has them: r1 to r5 hold arguments, r0 a result, r6 to r9
// survive calls, r10 is the frame.
enum bpf_register : uint8_t { r0, r1, r2, r3, r4, r5, r6, r7, r8, r9, r10 };

// Builds the program; a member that the running kernel does not have makes it incomplete.
class program_builder {
 public:
  explicit program_builder(const btf* kernel) : types(kernel) {}

  std::vector<bpf_insn> instructions;
  bool complete = true;

  void load(int size, bpf_register to, bpf_register from, int offset) {
    add(static_cast<uint8_t>(BPF_LDX | BPF_MEM | size), to, from, offset, 0);
  }
  void load_member(int size, bpf_register to, bpf_register from, const char* structure,
                   std::initializer_list<const char*> path) {
    load(size, to, from, checked(offset_of(types, structure, path)));
  }
  // Copies a member into the record on the stack.
  void copy_member(int size, size_t record_offset, bpf_register from, const char* structure,
                   std::initializer_list<const char*> path) {
    load_member(size, r1, from, structure, path);
    store(size, record_offset, r1);
  }
  void store(int size, size_t record_offset, bpf_register from) {
    add(static_cast<uint8_t>(BPF_STX | BPF_MEM | size), r10, from, on_stack(record_offset), 0);
  }
  void store_zero(int size, size_t record_offset) {
    add(static_cast<uint8_t>(BPF_ST | BPF_MEM | size), r10, r0, on_stack(record_offset), 0);
  }
  void move(bpf_register to, bpf_register from) {
    add(BPF_ALU64 | BPF_MOV | BPF_X, to, from, 0, 0);
  }
  void move_number(bpf_register to, int number) {
    add(BPF_ALU64 | BPF_MOV | BPF_K, to, r0, 0, number);
  }
  void add_number(bpf_register to, int number) {
    // BPF_ADD and BPF_K are both 0.
    // NOLINTNEXTLINE(misc-redundant-expression)
    add(BPF_ALU64 | BPF_ADD | BPF_K, to, r0, 0, number);
  }
  void add_register(bpf_register to, bpf_register from) {
    add(BPF_ALU64 | BPF_ADD | BPF_X, to, from, 0, 0);
  }
  void point_at_record(bpf_register to, size_t record_offset) {
    move(to, r10);
    add_number(to, on_stack(record_offset));
  }
  void call(bpf_func_id helper) { add(BPF_JMP | BPF_CALL, r0, r0, 0, helper); }
  void leave() {
    move_number(r0, 0);
    add(BPF_JMP | BPF_EXIT, r0, r0, 0, 0);
  }

  // A jump over what is added until land().
  size_t jump_if_zero(bpf_register value) {
    add(BPF_JMP | BPF_JEQ | BPF_K, value, r0, 0, 0);
    return instructions.size() - 1;
  }
  size_t jump_if_not_negative(bpf_register value) {
    add(BPF_JMP | BPF_JSGE | BPF_K, value, r0, 0, 0);
    return instructions.size() - 1;
  }
  void land(size_t jump) {
    instructions[jump].off = static_cast<int16_t>(instructions.size() - jump - 1);
  }

  int checked(int offset) {
    complete = complete && offset >= 0 && offset <= INT16_MAX;
    return offset;
  }

 private:
  static int on_stack(size_t record_offset) {
    return static_cast<int>(record_offset) - static_cast<int>(sizeof(task_record));
  }
  void add(uint8_t code, bpf_register to, bpf_register from, int offset, int number) {
    bpf_insn instruction{};
    instruction.code = code;
    instruction.dst_reg = to & 0xf;
    instruction.src_reg = from & 0xf;
    instruction.off = static_cast<int16_t>(offset);
    instruction.imm = number;
    instructions.push_back(instruction);
  }

  const btf* types;
};

#define RECORD(member) offsetof(task_record, member)

// r7: task_struct. Members that other kernels name or place differently.
void copy_renamed_members(program_builder& program, const btf* types) {
  const bool new_state = offset_of(types, "task_struct", {"__state"}) >= 0;  // since 5.14
  program.copy_member(BPF_W, RECORD(state), r7, "task_struct", {new_state ? "__state" : "state"});
  if (offset_of(types, "task_struct", {"thread_info", "cpu"}) >= 0) {
    program.copy_member(BPF_W, RECORD(cpu), r7, "task_struct", {"thread_info", "cpu"});
  } else {
    program.copy_member(BPF_W, RECORD(cpu), r7, "task_struct", {"cpu"});
  }
}

void copy_task_members(program_builder& program) {
  const char* const task = "task_struct";
  program.copy_member(BPF_W, RECORD(pid), r7, task, {"pid"});
  program.copy_member(BPF_W, RECORD(tgid), r7, task, {"tgid"});
  program.copy_member(BPF_W, RECORD(exit_state), r7, task, {"exit_state"});
  program.copy_member(BPF_W, RECORD(prio), r7, task, {"prio"});
  program.copy_member(BPF_DW, RECORD(start_boottime), r7, task, {"start_boottime"});
  program.copy_member(BPF_DW, RECORD(sum_exec_runtime), r7, task, {"se", "sum_exec_runtime"});
  program.copy_member(BPF_DW, RECORD(read_bytes), r7, task, {"ioac", "read_bytes"});
  program.copy_member(BPF_DW, RECORD(write_bytes), r7, task, {"ioac", "write_bytes"});
  program.load_member(BPF_DW, r1, r7, task, {"real_parent"});
  program.copy_member(BPF_W, RECORD(parent_tgid), r1, task, {"tgid"});
}

void copy_signal_members(program_builder& program) {
  const char* const signal = "signal_struct";
  program.load_member(BPF_DW, r8, r7, "task_struct", {"signal"});
  program.copy_member(BPF_W, RECORD(nr_threads), r8, signal, {"nr_threads"});
  program.copy_member(BPF_DW, RECORD(gone_exec_runtime), r8, signal, {"sum_sched_runtime"});
  program.copy_member(BPF_DW, RECORD(gone_read_bytes), r8, signal, {"ioac", "read_bytes"});
  program.copy_member(BPF_DW, RECORD(gone_write_bytes), r8, signal, {"ioac", "write_bytes"});
}

// Resident pages are those of files, anonymous ones and shared ones. Their counters are per-CPU
// ones since Linux 6.2 and may read below zero; /proc/PID/stat takes the same figure.
void sum_resident_pages(program_builder& program, const btf* types) {
  constexpr int counters[] = {0, 1, 3};  // MM_FILEPAGES, MM_ANONPAGES, MM_SHMEMPAGES
  const int place = program.checked(offset_of(types, "mm_struct", {"rss_stat"}));
  const int inside = offset_of(types, "mm_struct", {"rss_stat", "count"});
  const int per_cpu = btf__find_by_name_kind(types, "percpu_counter", BTF_KIND_STRUCT);
  const bool plain = inside >= 0;
  const int first =
      plain ? inside : place + program.checked(offset_of(types, "percpu_counter", {"count"}));
  const int stride =
      plain         ? 8
      : per_cpu < 0 ? -1
                    : static_cast<int>(btf__resolve_size(types, static_cast<uint32_t>(per_cpu)));
  program.checked(stride);
  program.store_zero(BPF_DW, RECORD(rss_pages));
  program.load_member(BPF_DW, r8, r7, "task_struct", {"mm"});
  const size_t no_memory = program.jump_if_zero(r8);
  program.move_number(r9, 0);
  for (const int counter : counters) {
    program.load(BPF_DW, r1, r8, program.checked(first + counter * stride));
    const size_t positive = program.jump_if_not_negative(r1);
    program.move_number(r1, 0);
    program.land(positive);
    program.add_register(r9, r1);
  }
  program.store(BPF_DW, RECORD(rss_pages), r9);
  program.land(no_memory);
}

void copy_net_namespace(program_builder& program) {
  program.store_zero(BPF_DW, RECORD(net_namespace));
  program.load_member(BPF_DW, r8, r7, "task_struct", {"nsproxy"});
  const size_t no_namespaces = program.jump_if_zero(r8);
  program.load_member(BPF_DW, r8, r8, "nsproxy", {"net_ns"});
  const size_t no_net = program.jump_if_zero(r8);
  program.copy_member(BPF_W, RECORD(net_namespace), r8, "net", {"ns", "inum"});
  program.land(no_net);
  program.land(no_namespaces);
}

// The program is called with bpf_iter__task: for each task, and with no task at the end.
program_builder build_program(const btf* types) {
  program_builder program(types);
  program.load_member(BPF_DW, r6, r1, "bpf_iter__task", {"meta"});
  program.load_member(BPF_DW, r7, r1, "bpf_iter__task", {"task"});
  const size_t no_task = program.jump_if_zero(r7);
  copy_task_members(program);
  copy_renamed_members(program, types);
  copy_signal_members(program);
  sum_resident_pages(program, types);
  copy_net_namespace(program);
  program.point_at_record(r1, RECORD(comm));
  program.move_number(r2, sizeof(task_record::comm));
  program.move(r3, r7);
  program.add_number(r3, program.checked(offset_of(types, "task_struct", {"comm"})));
  program.call(BPF_FUNC_probe_read_kernel);
  program.load_member(BPF_DW, r1, r6, "bpf_iter_meta", {"seq"});
  program.point_at_record(r2, 0);
  program.move_number(r3, sizeof(task_record));
  program.call(BPF_FUNC_seq_write);
  program.land(no_task);
  program.leave();
  return program;
}

bool in_initial_pid_namespace() {
  struct stat status {};
  return stat("/proc/self/ns/pid", &status) == 0 && status.st_ino == initial_pid_namespace;
}

// The letter of proc_pid_stat(5), as the kernel's task_state_index() finds it.
char state_letter(const task_record& task) {
  constexpr uint32_t uninterruptible = 0x2;
  constexpr uint32_t no_load = 0x400;
  constexpr uint32_t rt_lock_wait = 0x1000;
  constexpr uint32_t frozen = 0x8000;
  constexpr uint32_t reported = 0x7f;
  constexpr char letters[] = "RSDTtXZP";
  if ((task.state & (uninterruptible | no_load)) == (uninterruptible | no_load)) {
    return 'I';
  }
  uint32_t bits = (task.state | task.exit_state) & reported;
  if ((task.state & (rt_lock_wait | frozen)) != 0) {
    bits = uninterruptible;
  }
  size_t index = 0;
  for (; bits != 0; bits >>= 1) {
    ++index;
  }
  return letters[index];
}

int16_t saturate(int64_t value) {
  return static_cast<int16_t>(std::clamp<int64_t>(value, INT16_MIN, INT16_MAX));
}

process_entry entry_of(const task_record& task, const stat_units& units) {
  constexpr int32_t real_time_priorities = 100;
  process_entry entry;
  entry.pid = task.pid;
  entry.ppid = task.parent_tgid;
  const std::string_view comm(task.comm, strnlen(task.comm, sizeof task.comm - 1));
  copy_name(comm, entry.comm);
  entry.state = state_letter(task);
  entry.priority = saturate(int64_t{task.prio} - real_time_priorities);
  entry.processor = saturate(task.cpu);
  entry.num_threads = task.nr_threads;
  entry.net_namespace = task.net_namespace;
  entry.start_ticks = task.start_boottime / units.tick_ns;
  entry.cpu_ns = task.sum_exec_runtime;
  entry.activity = task.sum_exec_runtime;
  entry.io_bytes = task.read_bytes + task.write_bytes;
  entry.rss_kb = static_cast<int64_t>(task.rss_pages * units.page_kb);
  return entry;
}

}  // namespace

int task_iterator::open() {
  if (!in_initial_pid_namespace()) {
    return -EOPNOTSUPP;
  }
  libbpf_set_print(nullptr);  // whoever opens it says what failed
  const kernel_types types(btf__load_vmlinux_btf());
  if (!types) {
    return -errno;
  }
  const int attach_id = btf__find_by_name_kind(types.get(), "bpf_iter_task", BTF_KIND_FUNC);
  const program_builder program = build_program(types.get());
  if (attach_id < 0 || !program.complete) {
    return -EOPNOTSUPP;
  }
  LIBBPF_OPTS(bpf_prog_load_opts, options, .expected_attach_type = BPF_TRACE_ITER,
              .attach_btf_id = static_cast<__u32>(attach_id));
  // The kernel gives bpf_seq_write() to programs under a licence that fits its own only.
  const file_descriptor loaded(bpf_prog_load(BPF_PROG_TYPE_TRACING, "mon_tasks", "Dual MIT/GPL",
                                             program.instructions.data(),
                                             program.instructions.size(), &options));
  if (!loaded) {
    return -errno;
  }
  link = file_descriptor(bpf_link_create(loaded.get(), 0, BPF_TRACE_ITER, nullptr));
  return link ? 0 : -errno;
}

int task_iterator::read(std::vector<task_record>& tasks) {
  const file_descriptor pass(bpf_iter_create(link.get()));
  if (!pass) {
    return -errno;
  }
  constexpr size_t records_a_read = 512;
  tasks.reserve(records_before + 2 * records_a_read);  // growing takes twice the room for a while
  size_t bytes = 0;
  for (;;) {
    tasks.resize(bytes / sizeof(task_record) + records_a_read);
    auto* const space = reinterpret_cast<char*>(tasks.data());
    const ssize_t size =
        ::read(pass.get(), space + bytes, tasks.size() * sizeof(task_record) - bytes);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) {
      continue;
    }
    if (size <= 0) {
      tasks.resize(bytes / sizeof(task_record));
      records_before = tasks.size();
      return size == 0 ? 0 : -errno;
    }
    bytes += static_cast<size_t>(size);
  }
}

void task_entries::make_threads(const std::vector<task_record>& tasks,
                                std::vector<process_entry>& entries) const {
  entries.clear();
  entries.reserve(tasks.size());
  for (const task_record& task : tasks) {
    entries.push_back(entry_of(task, units));
    entries.back().ppid = task.tgid;
  }
}

void task_entries::make_processes(const std::vector<task_record>& tasks,
                                  std::vector<process_entry>& entries, std::vector<int32_t>& torn) {
  entries.clear();
  sums.clear();
  for (const task_record& task : tasks) {
    if (task.pid == task.tgid) {
      process_entry& entry = entries.emplace_back(entry_of(task, units));
      entry.cpu_ns += task.gone_exec_runtime;
      entry.activity = entry.cpu_ns;
      entry.io_bytes += task.gone_read_bytes + task.gone_write_bytes;
      sums.push_back({&task, 1, true});
    }
  }
  for (const task_record& task : tasks) {
    if (task.pid != task.tgid) {
      add_thread(task, entries);
    }
  }
  leave_out_torn(entries, torn);
}

void task_entries::add_thread(const task_record& task, std::vector<process_entry>& entries) {
  const auto by_pid = [](const process_entry& entry, int32_t pid) { return entry.pid < pid; };
  const auto process = std::lower_bound(entries.begin(), entries.end(), task.tgid, by_pid);
  if (process == entries.end() || process->pid != task.tgid) {
    return;  // of a process that began after its id was passed: it is in the next sample
  }
  process_sum& sum = sums[static_cast<size_t>(process - entries.begin())];
  ++sum.threads;
  process->cpu_ns += task.sum_exec_runtime;
  process->activity = process->cpu_ns;
  process->io_bytes += task.read_bytes + task.write_bytes;
  sum.consistent = sum.consistent && task.nr_threads == sum.first->nr_threads &&
                   task.gone_exec_runtime == sum.first->gone_exec_runtime;
}

void task_entries::leave_out_torn(std::vector<process_entry>& entries,
                                  std::vector<int32_t>& torn) const {
  size_t left = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (sums[i].consistent && sums[i].threads == sums[i].first->nr_threads) {
      entries[left] = entries[i];
      ++left;
    } else {
      torn.push_back(entries[i].pid);
    }
  }
  entries.resize(left);
}

}  // namespace samplers
