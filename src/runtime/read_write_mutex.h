#ifndef KORVEX_RUNTIME_READ_WRITE_MUTEX_H
#define KORVEX_RUNTIME_READ_WRITE_MUTEX_H

#include <shared_mutex>

namespace korvex {

// A lock for one writer or many readers. A thread library may set a lock up when it is first taken, and MinGW's fails
// the second of two threads that come first at once: this one was taken before anybody shares it.
class read_write_mutex : public std::shared_mutex {
 public:
  read_write_mutex() {
    lock();
    unlock();
  }
};

}  // namespace korvex

#endif  // KORVEX_RUNTIME_READ_WRITE_MUTEX_H
