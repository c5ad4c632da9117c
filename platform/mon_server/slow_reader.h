// SPDX-License-Identifier: Apache-2.0
// Reads that can hang (statvfs(2) on a dead mount, a driver's file) on threads of their own.
#ifndef SLOW_READER_H
#define SLOW_READER_H

#include <asio/io_context.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Used on the event loop's thread only. A read that passes the deadline is answered without a
// result. Reads of one lane (a mount, a driver) take turns, so that one that hangs takes one
// thread, however many are asked for: nothing of its lane is read until it has come back. Clients
// take turns as well. Reads that still hang when the program ends are left behind.
class slow_reader {
 public:
  using bytes = std::vector<uint8_t>;
  // Runs on another thread and must not touch anything that the event loop changes.
  using job = std::function<bytes()>;
  // Called on the event loop, or at once; null when there is no result.
  using reply = std::function<void(const std::shared_ptr<const bytes>&)>;

  slow_reader(asio::io_context& loop, size_t threads);
  ~slow_reader();
  slow_reader(const slow_reader&) = delete;
  slow_reader& operator=(const slow_reader&) = delete;

  // Where a read belongs: `key` is its name, of all reads, and `client` is whoever wants it.
  struct place {
    std::string key;
    std::string lane;
    const void* client;
  };

  // Answers with the result of the read at `where`: of one that ended less than `max_age_us` ago
  // (half a second at least, a second at most; three if it is empty), of the one that is under way,
  // or of `read`.
  void ask(const place& where, int64_t max_age_us, const job& read, const reply& answer);

 private:
  struct waiter;
  struct entry {
    std::shared_ptr<const bytes> result;
    int64_t ended_us = 0;
    bool under_way = false;
    bool not_seen = false;  // the result came too late for whoever asked
    std::vector<std::shared_ptr<waiter>> waiters;
  };
  // A read that waits for a thread and for its lane.
  struct question {
    place where;
    uint64_t turn;  // those of the lowest go first
    job read;
  };
  struct thread_pool;

  static int64_t least_kept_us(const entry& slot);
  bool add_question(const place& where, const job& read);
  void start_questions();
  bool start(const question& next);
  void wait_for(const std::string& key, const reply& answer);
  void give_up(const std::string& key);
  bool make_room(const std::string& key);
  void ended(const std::string& key, const std::string& lane, bytes result);
  void forget_old();

  asio::io_context& loop;
  std::map<std::string, entry> entries;        // by key
  std::list<question> questions;               // each has an entry that is under way
  std::map<std::string, int64_t> lanes;        // those being read, and since when
  std::map<const void*, uint64_t> last_turns;  // of clients that are ahead of `turn`
  uint64_t turn = 0;                           // of the last question that was started
  std::shared_ptr<thread_pool> pool;
};

#endif
