#include "runtime/disk_probe.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/direct_io.h"
#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"
#include "runtime/random.h"

namespace korvex {
namespace {

constexpr unsigned k_default_seconds = 10;
constexpr unsigned k_longest_seconds = 1000;
constexpr std::uint64_t k_fewest_blocks = 1024;
constexpr char k_result_name[] = "iops_result.txt";
constexpr char k_scratch_name[] = "iops_test.inprogress";

struct release_aligned {
  void operator()(void* data) const { platform::aligned_free(data); }
};
using aligned_block = std::unique_ptr<void, release_aligned>;

class open_descriptor {
 public:
  explicit open_descriptor(int fd) : fd_(fd) {}
  ~open_descriptor() { close(); }
  open_descriptor(const open_descriptor&) = delete;
  open_descriptor& operator=(const open_descriptor&) = delete;
  int get() const { return fd_; }
  void close() {
    platform::close_file(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

aligned_block zeroed_block(unsigned bytes) {
  if (bytes == 0) return nullptr;
  aligned_block block(platform::aligned_malloc(bytes, bytes));
  if (block) std::memset(block.get(), 0, bytes);
  return block;
}

// The figures are kept with a decimal point, whatever the host's locale prints.
bool parse_figure(const char*& at, const char* end, double* figure) {
  while (at != end && std::strchr(" \t\r\n", *at) != nullptr) ++at;
  const auto [rest, error] = std::from_chars(at, end, *figure);
  at = rest;
  return error == std::errc() && std::isfinite(*figure) && *figure >= 0;
}

bool load_figures(const std::string& path, disk_iops_s* out) {
  if (!platform::status_of(path.c_str()).regular)
    return false;  // a pipe would wait for its other end
  const open_descriptor file(platform::open_file(path.c_str(), platform::open_mode::read_only));
  if (file.get() < 0) return false;
  char text[256];
  const std::int64_t size = platform::read_at(file.get(), text, sizeof text, 0);
  if (size <= 0) return false;
  const char* at = text;
  disk_iops_s found{};
  if (!parse_figure(at, text + size, &found.read) || !parse_figure(at, text + size, &found.write))
    return false;
  *out = found;
  return true;
}

void append_figure(std::string* text, double figure) {
  char digits[400];  // the largest double takes 309 digits before the point
  const auto end =
      std::to_chars(digits, digits + sizeof digits, figure, std::chars_format::fixed, 2);
  text->append(digits, end.ptr).push_back('\n');
}

void save_figures(const std::string& path, const disk_iops_s& figures) {
  std::string text;
  append_figure(&text, figures.read);
  append_figure(&text, figures.write);
  const open_descriptor file(platform::open_file(path.c_str(), platform::open_mode::truncate));
  if (file.get() < 0 || !platform::write_all(file.get(), text.data(), text.size()))
    KORVEX_LOG_CRITICAL("unable to save disk performance results\n");
}

void log_failed_operation(const char* path, bool write) {
  const int error = errno;
  if (write)
    KORVEX_LOG_CRITICAL("failed writing to test file: %s errno %d\n", path, error);
  else
    KORVEX_LOG_CRITICAL("failed reading from test file: %s\n", path);
}

// One block at a random place, at an absolute offset: the descriptor's position stays as it was.
bool run_operation(int fd, void* block, unsigned block_size, std::uint64_t blocks, bool write) {
  const std::uint64_t offset = random_u32() % blocks * block_size;
  const std::int64_t moved = write ? platform::write_at(fd, block, block_size, offset)
                                   : platform::read_at(fd, block, block_size, offset);
  return moved == static_cast<std::int64_t>(block_size);
}

std::uint64_t now_usec() {
  return platform::monotonic_ns() / 1000;
}

int measure_both(const std::string& scratch, unsigned block_size, unsigned file_size,
                 unsigned seconds, disk_iops_s* out) {
  const char* path = scratch.c_str();
  out->write = measure_iops(path, block_size, file_size, seconds, 1);
  if (out->write >= 0) out->read = measure_iops(path, block_size, file_size, seconds, 0);
  platform::remove_file(path);
  if (out->read >= 0) return 0;
  *out = {-1.0, -1.0};
  return -1;
}

bool contains_any(const char* text, std::initializer_list<const char*> keys) {
  return std::any_of(keys.begin(), keys.end(),
                     [text](const char* key) { return std::strstr(text, key) != nullptr; });
}

}  // namespace

int disk_perf_test(const char* dir, unsigned block_size, unsigned file_size, unsigned duration,
                   int force, disk_iops_s* out) try {
  *out = {-1.0, -1.0};
  platform::create_directories(dir);
  const std::string result_path = std::string(dir) + "/" + k_result_name;
  if (force == 0) {
    KORVEX_LOG("loading resuls from %s\n", result_path.c_str());
    if (load_figures(result_path, out)) return 1;
  }
  const unsigned seconds =
      duration == 0 ? k_default_seconds : std::min(duration, k_longest_seconds);
  KORVEX_LOG("starting disk performance test: block size %u file size %u duration %u secs\n",
             block_size, file_size, seconds);
  const std::string scratch = std::string(dir) + "/" + k_scratch_name;
  if (measure_both(scratch, block_size, file_size, seconds, out) != 0) return -1;
  save_figures(result_path, *out);
  return 0;
} catch (const std::exception&) {
  KORVEX_LOG_CRITICAL("failed to allocate buffer for test\n");
  return -1;
}

double measure_iops(const char* path, unsigned block_size, unsigned file_size,
                    unsigned duration_secs, int write) {
  const aligned_block block = zeroed_block(block_size);
  if (!block) {
    KORVEX_LOG_CRITICAL("failed to allocate buffer for test\n");
    return -1.0;
  }
  open_descriptor file(platform::open_unbuffered(path, write == 0, true, true, false, false));
  if (file.get() < 0) {
    KORVEX_LOG_CRITICAL("failed to open test file: %s\n", path);
    return -1.0;
  }
  const std::uint64_t length = std::max<std::uint64_t>(block_size * k_fewest_blocks, file_size);
  bool done = platform::set_file_size(file.get(), length) == 0;
  const std::uint64_t start = now_usec();
  const std::uint64_t deadline = start + std::uint64_t{duration_secs} * 1'000'000;
  std::uint64_t operations = 0;
  do {
    done =
        done && run_operation(file.get(), block.get(), block_size, length / block_size, write != 0);
    if (!done) {
      log_failed_operation(path, write != 0);
      return -1.0;
    }
    ++operations;
  } while (now_usec() <= deadline);
  file.close();  // what the system still does for the file counts
  const double seconds = static_cast<double>(now_usec() - start) / 1'000'000.0;
  return static_cast<double>(operations) / seconds;
}

int open_with_direct_io(const char* path, int flags, unsigned short) {
  return platform::open_unbuffered_flags(path, flags);
}

void disk_perf_warning() {
  KORVEX_LOG(
      "Warning: Suboptimal Disk Performance Detected\n"
      "Your disk may be too slow for efficient ANN operations. ANN search performance heavily "
      "depends on fast random read speeds, and slower disks can significantly impact query "
      "latency.\n"
      "We recommend benchmarking your disk with `fio` or similar tools using different I/O engines "
      "such as libaio, psync, mmap, and io_uring to check performance.\n"
      "Example:\n"
      "fio --name=disk_test --filename=/your/test/file --rw=randread --bs=4k --ioengine=libaio "
      "--iodepth=32 --numjobs=4 --direct=1 --runtime=10s --time_based\n"
      "If your random read/write IOPS are below expectations (e.g., under 100K), consider "
      "upgrading to a higher-performance Enterprise NVMe SSD (PCIe Gen 4 and better)\n");
}

int print_slow_disk_warning(int is_nvme, int pcie_gen, int has_dram) {
  const auto log_missing_memory = [] {
    KORVEX_LOG(
        "Warning: Your drive likely lacks onboard DRAM, which may cause high latency during random "
        "reads.\n");
  };
  const auto log_cache_advice = [] {
    KORVEX_LOG(
        "Consider enabling drive cache using `Korvex::enableDiskCache()` to improve "
        "performance.\n");
  };
  if (is_nvme != 0 && pcie_gen > 3) {
    if (has_dram != 0) return 0;
    log_missing_memory();
    log_cache_advice();
    return 1;
  }
  if (is_nvme == 0) {
    KORVEX_LOG_CRITICAL(
        "Warning: You are running on a non-NVMe drive, which may significantly slow down "
        "disk-based indexing and queries.\n");
  } else {
    KORVEX_LOG(
        "Warning: Your drive uses PCIe Gen%d. For optimal performance, PCIe Gen4 or above is "
        "recommended.\n",
        pcie_gen);
    if (has_dram == 0) log_missing_memory();
  }
  log_cache_advice();
  KORVEX_LOG(
      "However, you may still need a faster drive (PCIe Gen4+ NVMe with DRAM) for best "
      "performance.\n");
  return 1;
}

int nvme_has_dram_by_model(const char* model, const char* vendor) {
  if (model == nullptr || *model == '\0') return -1;
  int score = 0;
  if (contains_any(model, {"Pro",    "PRO",    "Black",    "BLACK",    "970",    "980",
                           "SN850",  "SN750",  "SN700",    "PM9A1",    "MP600",  "P5 Plus",
                           "Aorus",  "AORUS",  "Firecuda", "FIRECUDA", "KC3000", "Force MP",
                           "Rocket", "Gammix", "XPG",      "EX950"}))
    score = 2;
  if (contains_any(model, {"P31", "SX8200", "EX920", "760p", "SN570", "CS3030"})) ++score;
  if (contains_any(model, {"Green", "GREEN", "Blue", "BLUE", "SN550", "SN520", "660p", "665p", "P1",
                           "P2", "BG4", "LITE", "Lite", "A2000", "CS900", "SN350"}))
    --score;
  if (vendor != nullptr && contains_any(vendor, {"Samsung", "Western Digital", "WD", "Seagate"}))
    ++score;
  return score > 1 ? 1 : 0;
}

void nvme_check_disk(const char*) {}

}  // namespace korvex
