#ifndef KORVEX_RUNTIME_LOG_RING_H
#define KORVEX_RUNTIME_LOG_RING_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "runtime/log.h"

namespace korvex {

// Log lines of any length, one after another in a buffer of fixed size; the oldest make room for
// the newest.
// Threads     none of its own: the owner's lock guards every call.
// Layout      a 56-byte header, tag, NUL, message, NUL, rounded up to 8 bytes; an entry is never
//             split at the buffer's end:
//
//               0        head                 write        capacity
//               |........[oldest][..][newest]|.............|   next entry: the end, else the start
//               [..][newest]|........[oldest][..][..]......|   after a lap: only up to head
//
// Invariant   empty means head = tail = write = 0: the whole size is then one run.
class log_ring {
 public:
  struct line {
    std::uint32_t level;
    std::uint32_t sequence;
    const char* tag;
    std::size_t tag_length;
    const char* message;
    std::size_t message_length;
  };

  // False when out of memory.
  bool allocate(std::uint64_t capacity);

  // Queues a line whose formatted length is already known; a text that has grown since is cut.
  // Drops the oldest entries until it fits. When even the empty ring is too small the message is
  // shortened and ends in "..."; false when that leaves no useful room.
  bool push(std::uint32_t level, const char* tag, std::size_t length, const char* format,
            std::va_list args) KORVEX_PRINTF(5, 0);

  // The oldest entry; valid until the next change. Requires count() > 0.
  line front() const;
  void pop_front();
  void clear();

  std::uint64_t capacity() const { return capacity_; }
  std::uint64_t count() const { return count_; }
  std::uint32_t dropped() const { return dropped_; }

 private:
  struct header;
  struct space {
    std::uint64_t offset;
    std::uint64_t size;
  };

  header* header_at(std::uint64_t offset) const;
  space find_space(std::uint64_t wanted) const;
  space make_room(std::uint64_t wanted);
  void link(std::uint64_t offset, std::uint64_t size);

  struct free_bytes {
    void operator()(void* bytes) const;
  };
  std::unique_ptr<char, free_bytes> bytes_;
  std::uint64_t capacity_ = 0;
  std::uint64_t head_ = 0;
  std::uint64_t tail_ = 0;
  std::uint64_t write_ = 0;
  std::uint64_t count_ = 0;
  std::uint32_t next_sequence_ = 1;
  std::uint32_t dropped_ = 0;
};

}  // namespace korvex

#endif  // KORVEX_RUNTIME_LOG_RING_H
