#include "runtime/platform/process.h"

#include <windows.h>
// After windows.h, whose types they need.
#include <knownfolders.h>
#include <psapi.h>
#include <shlobj.h>

#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

// Loaded when asked for: the shell's library brings in half of the user interface.
std::string local_app_data() {
  const auto find =
      system_function<decltype(&::SHGetKnownFolderPath)>(L"shell32.dll", "SHGetKnownFolderPath");
  const auto release = system_function<decltype(&::CoTaskMemFree)>(L"ole32.dll", "CoTaskMemFree");
  if (find == nullptr || release == nullptr) return {};
  wchar_t* path = nullptr;
  const bool found = find(FOLDERID_LocalAppData, 0, nullptr, &path) == S_OK && path != nullptr;
  const std::string folder = found ? narrow(path) : "";
  release(path);
  return folder;
}

std::string environment(const wchar_t* name) {
  std::wstring value(::GetEnvironmentVariableW(name, nullptr, 0), L'\0');
  value.resize(::GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
  return narrow(value);
}

}  // namespace

memory_usage process_memory() {
  PROCESS_MEMORY_COUNTERS counters{};
  if (!::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters)) return {};
  return {counters.WorkingSetSize, counters.PeakWorkingSetSize, counters.PagefileUsage,
          counters.PeakPagefileUsage};
}

std::string user_data_directory() {
  std::string folder = local_app_data();
  if (folder.empty()) folder = environment(L"LOCALAPPDATA");
  if (folder.empty()) folder = environment(L"USERPROFILE");
  if (folder.empty()) folder = environment(L"HOMEDRIVE") + environment(L"HOMEPATH");
  return folder.empty() ? "." : folder;
}

std::uintptr_t module_base() {
  HMODULE module = nullptr;
  constexpr DWORD flags =
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  const auto* here = reinterpret_cast<const wchar_t*>(reinterpret_cast<const void*>(&module_base));
  return ::GetModuleHandleExW(flags, here, &module) ? reinterpret_cast<std::uintptr_t>(module) : 0;
}

}  // namespace korvex::platform
