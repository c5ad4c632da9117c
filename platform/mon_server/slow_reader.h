// Reads that can hang (statvfs(2) on a dead mount, a driver's file) on threads of their own.
#ifndef SLOW_READER_H
#define SLOW_READER_H

#include <asio/io_context.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Used on the event loop's thread only. A read that passes the deadline is answered without a
// result, and is not started again until it has come back; its thread is lost to others so long.
// Reads that still hang when the program ends are left behind.
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

  // Answers with the result of the read called `key`: of one that ended less than `young_us` ago
  // (half a second at least, a second at most), of the one that is under way, or of `read`.
  void ask(const std::string& key, int64_t young_us, const job& read, const reply& answer);

 private:
  struct waiter;
  struct entry {
    std::shared_ptr<const bytes> result;
    int64_t ended_us = 0;
    int64_t started_us = 0;  // of the read under way
    bool under_way = false;
    bool not_seen = false;  // the result came too late for whoever asked
    std::vector<std::shared_ptr<waiter>> waiters;
  };
  struct thread_pool;

  bool start(const std::string& key, entry& slot, const job& read);
  void wait_for(entry& slot, const reply& answer);
  bool make_room(const std::string& key);
  void ended(const std::string& key, bytes result);
  void forget_old();

  asio::io_context& loop;
  std::map<std::string, entry> entries;
  std::shared_ptr<thread_pool> pool;
};

#endif
