#ifndef KORVEX_BENCH_ON_DISK_CHILD_H
#define KORVEX_BENCH_ON_DISK_CHILD_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace korvex::on_disk {

// Runs `body` in a process of its own and hands back the numbers that it returns. Throws when the process fails. The
// caller has no other threads.
std::vector<double> in_child(const std::function<std::vector<double>()>& body);

// What the files of a directory take, and how much of that the page cache holds.
struct file_pages {
  std::uint64_t bytes = 0;
  std::uint64_t allocated_bytes = 0;
  std::uint64_t resident_bytes = 0;
};
file_pages look_at_pages(const std::string& directory);
// Writes the files of a directory out and asks the system to forget their pages.
void drop_pages(const std::string& directory);

}  // namespace korvex::on_disk

#endif  // KORVEX_BENCH_ON_DISK_CHILD_H
