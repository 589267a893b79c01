#ifndef KORVEX_RUNTIME_DISK_PROBE_H
#define KORVEX_RUNTIME_DISK_PROBE_H

namespace korvex {

// Random single-block operations per second; -1 when unknown or not measured.
struct disk_iops_s {
  double read;
  double write;
};

// Measures the drive under a directory, first writing, then reading, each for `duration` seconds
// (0: 10, at most 1000), and keeps the figures in a file there for later calls. `force` measures
// again. 1 when kept figures were loaded, 0 after a measurement, -1 when one failed (figures -1).
// Requires   one probe a directory at a time: all use the same scratch file.
int disk_perf_test(const char* dir, unsigned block_size, unsigned file_size, unsigned duration,
                   int force, disk_iops_s* out);

// Unbuffered operations per second on a file of at least 1,024 blocks, which is created when absent
// and kept.
// -1.0 on a failure, among them a block size that the drive or the memory allocator refuses.
double measure_iops(const char* path, unsigned block_size, unsigned file_size,
                    unsigned duration_secs, int write);

// Takes the flags of the C runtime's open; `mode` is not used. A descriptor, or -1.
int open_with_direct_io(const char* path, int flags, unsigned short mode);

// Logs what to do about a slow drive.
void disk_perf_warning();
// The same for a drive whose kind is known. 1 when something was logged, else 0.
int print_slow_disk_warning(int is_nvme, int pcie_gen, int has_dram);

// A guess from a drive's names: 1 likely with a memory chip of its own, 0 likely without, -1
// without a model.
int nvme_has_dram_by_model(const char* model, const char* vendor);

// A hook for checks of the drive under `path` when an index is opened on it; none so far.
void nvme_check_disk(const char* path);

}  // namespace korvex

#endif  // KORVEX_RUNTIME_DISK_PROBE_H
