#include "runtime/platform/process.h"

#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>
#include <vector>

#include "runtime/platform/posix/text_files.h"

namespace korvex::platform {
namespace {

std::string home_of_account() {
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16'384);
  if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0) return {};
  return found == nullptr || found->pw_dir == nullptr ? "" : found->pw_dir;
}

}  // namespace

memory_usage process_memory() {
  const std::string status = read_text_file("/proc/self/status");
  const auto bytes = [&](std::string_view key) {
    return number_after(status, key).value_or(0) * 1024;
  };
  return {bytes("VmRSS:"), bytes("VmHWM:"), bytes("VmSize:"), bytes("VmPeak:")};
}

std::string user_data_directory() {
  const char* data_home = std::getenv("XDG_DATA_HOME");
  if (data_home != nullptr && data_home[0] == '/') return data_home;
  const char* home_variable = std::getenv("HOME");
  std::string home = home_variable == nullptr ? "" : home_variable;
  if (home.empty()) home = home_of_account();
  return home.empty() ? "." : home + "/.local/share";
}

std::uintptr_t module_base() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&module_base), &info) == 0) return 0;
  return reinterpret_cast<std::uintptr_t>(info.dli_fbase);
}

}  // namespace korvex::platform
