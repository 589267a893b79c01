#include "runtime/log_ring.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/platform/faults.h"

namespace korvex {

struct log_ring::header {
  std::uint64_t level;
  std::uint64_t tag_offset;
  std::uint64_t tag_length;
  std::uint64_t message_offset;
  std::uint64_t message_length;
  std::uint64_t sequence;
  std::uint64_t next;  // offset of the next entry; meaningless in the newest
};

namespace {

constexpr std::uint64_t k_header_bytes = 56;
constexpr std::uint64_t k_smallest_room = 93;  // beside the tag, for an entry worth keeping
constexpr char k_cut_mark[] = "...";

constexpr std::uint64_t entry_bytes(std::uint64_t tag_length, std::uint64_t message_length) {
  return (tag_length + message_length + 65) & ~std::uint64_t{7};
}
static_assert(entry_bytes(0, 0) >= k_header_bytes + 2, "both texts keep their NUL");

void print_error(const char* text) {
  std::FILE* const output = log_fp();
  if (output == nullptr) return;
  std::fputs(text, output);
  std::fflush(output);
}

// Formats into room bytes, the NUL included; the number of characters kept.
KORVEX_PRINTF(3, 0)
std::size_t format_into(char* to, std::size_t room, const char* format, std::va_list args) {
  to[0] = '\0';
  const int length = std::vsnprintf(to, room, format, args);
  if (length < 0) {
    to[0] = '\0';
    return 0;
  }
  if (static_cast<std::size_t>(length) < room) return static_cast<std::size_t>(length);
  if (room >= sizeof k_cut_mark)
    std::memcpy(to + room - sizeof k_cut_mark, k_cut_mark, sizeof k_cut_mark);
  return room - 1;
}

}  // namespace

void log_ring::free_bytes::operator()(void* bytes) const {
  std::free(bytes);
}

bool log_ring::allocate(std::uint64_t capacity) {
  static_assert(sizeof(header) == k_header_bytes);
  if (platform::fault_injected(platform::fault_point::heap)) return false;
  bytes_.reset(static_cast<char*>(std::malloc(capacity)));
  if (!bytes_) return false;
  capacity_ = capacity;
  return true;
}

// Entries start at multiples of 8 of a heap block, so their headers are aligned.
log_ring::header* log_ring::header_at(std::uint64_t offset) const {
  return reinterpret_cast<header*>(bytes_.get() + offset);
}

bool log_ring::push(std::uint32_t level, const char* tag, std::size_t length, const char* format,
                    std::va_list args) {
  const std::uint64_t tag_length = std::strlen(tag);
  std::uint64_t size = entry_bytes(tag_length, length);
  std::uint64_t room = length + 1;
  const space run = make_room(size);
  if (run.size < size) {
    if (run.size < tag_length + k_smallest_room) return false;
    // A size that is no multiple of 8 cannot be used to its last byte.
    room = (run.size & ~std::uint64_t{7}) - (tag_length + 1) - k_header_bytes;
    if (room > 4) room -= 4;
    size = entry_bytes(tag_length, room - 1);
    if (size > run.size) {
      print_error("Logic error: Truncated message still doesn't fit\n");
      return false;
    }
  }
  header* entry = header_at(run.offset);
  entry->level = level;
  entry->tag_offset = run.offset + k_header_bytes;
  entry->tag_length = tag_length;
  entry->message_offset = entry->tag_offset + tag_length + 1;
  entry->sequence = next_sequence_++;
  entry->next = 0;
  std::memcpy(bytes_.get() + entry->tag_offset, tag, tag_length + 1);
  entry->message_length = format_into(bytes_.get() + entry->message_offset, room, format, args);
  link(run.offset, size);
  return true;
}

void log_ring::link(std::uint64_t offset, std::uint64_t size) {
  if (count_ == 0)
    head_ = offset;
  else
    header_at(tail_)->next = offset;
  tail_ = offset;
  write_ = offset + size;
  ++count_;
}

// The free run that takes `wanted` bytes, else the longest one.
log_ring::space log_ring::find_space(std::uint64_t wanted) const {
  if (capacity_ < write_ || capacity_ < head_) {
    print_error("available space calculation error: something wrong\n");
    return {0, 0};
  }
  if (count_ > 0 && write_ == head_) return {write_, 0};
  if (write_ < head_) return {write_, head_ - write_};
  const space at_end{write_, capacity_ - write_};
  const space at_start{0, head_};
  if (at_end.size >= wanted) return at_end;
  return at_start.size >= wanted || at_start.size > at_end.size ? at_start : at_end;
}

log_ring::space log_ring::make_room(std::uint64_t wanted) {
  space run = find_space(wanted);
  while (run.size < wanted && count_ > 0) {
    ++dropped_;
    pop_front();
    run = find_space(wanted);
  }
  return run;
}

log_ring::line log_ring::front() const {
  const header* entry = header_at(head_);
  return {static_cast<std::uint32_t>(entry->level), static_cast<std::uint32_t>(entry->sequence),
          bytes_.get() + entry->tag_offset,         entry->tag_length,
          bytes_.get() + entry->message_offset,     entry->message_length};
}

void log_ring::pop_front() {
  head_ = header_at(head_)->next;
  if (--count_ == 0) clear();
}

void log_ring::clear() {
  head_ = tail_ = write_ = count_ = 0;
}

}  // namespace korvex
