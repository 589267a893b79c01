#include <windows.h>
// After windows.h, whose types it needs.
#include <dbghelp.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "runtime/log.h"
#include "runtime/platform/process.h"
#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

constexpr int most_frames = 64;
constexpr DWORD most_name_bytes = 256;

// The debug-help library, which is loaded when the handler is installed: a crashing process should load nothing.
struct debug_help {
  decltype(&::SymInitialize) initialize = nullptr;
  decltype(&::StackWalk64) walk = nullptr;
  decltype(&::SymFunctionTableAccess64) function_table = nullptr;
  decltype(&::SymGetModuleBase64) base_of = nullptr;
  decltype(&::SymFromAddr) symbol = nullptr;
  decltype(&::MiniDumpWriteDump) write_dump = nullptr;

  void load() {
    const wchar_t* const library = L"dbghelp.dll";
    initialize = system_function<decltype(initialize)>(library, "SymInitialize");
    walk = system_function<decltype(walk)>(library, "StackWalk64");
    function_table = system_function<decltype(function_table)>(library, "SymFunctionTableAccess64");
    base_of = system_function<decltype(base_of)>(library, "SymGetModuleBase64");
    symbol = system_function<decltype(symbol)>(library, "SymFromAddr");
    write_dump = system_function<decltype(write_dump)>(library, "MiniDumpWriteDump");
  }
  bool walks() const {
    return initialize != nullptr && walk != nullptr && function_table != nullptr &&
           base_of != nullptr;
  }
};

// Written before the handler stands, only read afterwards.
debug_help g_help;
LPTOP_LEVEL_EXCEPTION_FILTER g_previous = nullptr;
wchar_t g_dump_path[MAX_PATH];
std::atomic<bool> g_crashing{false};

void log_frame(int number, DWORD64 address) {
  const auto* const place = reinterpret_cast<const void*>(address);
  struct {
    SYMBOL_INFO info;
    char rest_of_name[most_name_bytes];
  } symbol{};
  symbol.info.SizeOfStruct = sizeof symbol.info;
  symbol.info.MaxNameLen = most_name_bytes;
  DWORD64 offset = 0;
  if (g_help.symbol != nullptr &&
      g_help.symbol(::GetCurrentProcess(), address, &offset, &symbol.info))
    log_sync(0, nullptr, "  #%02d %p %s+0x%llx\n", number, place, symbol.info.Name,
             static_cast<unsigned long long>(offset));
  else
    log_sync(0, nullptr, "  #%02d %p\n", number, place);
}

void log_stack(CONTEXT context) {
  STACKFRAME64 frame{};
  frame.AddrPC = {context.Rip, 0, AddrModeFlat};
  frame.AddrFrame = {context.Rbp, 0, AddrModeFlat};
  frame.AddrStack = {context.Rsp, 0, AddrModeFlat};
  for (int number = 0; number < most_frames; ++number) {
    if (!g_help.walk(IMAGE_FILE_MACHINE_AMD64, ::GetCurrentProcess(), ::GetCurrentThread(), &frame,
                     &context, nullptr, g_help.function_table, g_help.base_of, nullptr) ||
        frame.AddrPC.Offset == 0)
      return;
    log_frame(number, frame.AddrPC.Offset);
  }
}

void write_dump(EXCEPTION_POINTERS* crash) {
  if (g_help.write_dump == nullptr || g_dump_path[0] == L'\0') return;
  const unique_handle file = owned(::CreateFileW(g_dump_path, GENERIC_WRITE, 0, nullptr,
                                                 CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return;
  MINIDUMP_EXCEPTION_INFORMATION exception{::GetCurrentThreadId(), crash, FALSE};
  if (g_help.write_dump(::GetCurrentProcess(), ::GetCurrentProcessId(), file.get(), MiniDumpNormal,
                        crash != nullptr ? &exception : nullptr, nullptr, nullptr))
    log_sync(0, nullptr, "minidump written to %ls\n", g_dump_path);
}

LONG WINAPI on_crash(EXCEPTION_POINTERS* crash) {
  if (!g_crashing.exchange(true)) {
    log_sync(0, nullptr, "**CRITICAL** exception 0x%08lx, address %p\n",
             crash->ExceptionRecord->ExceptionCode, crash->ExceptionRecord->ExceptionAddress);
    if (g_help.walks()) log_stack(*crash->ContextRecord);
    write_dump(crash);
  }
  return g_previous != nullptr ? g_previous(crash) : EXCEPTION_CONTINUE_SEARCH;
}

// abort() raises no exception of the system. On return from here it ends the process.
void on_abort(int) {
  if (g_crashing.exchange(true)) return;
  CONTEXT here{};
  ::RtlCaptureContext(&here);
  log_sync(0, nullptr, "**CRITICAL** abort, address %p\n", reinterpret_cast<void*>(here.Rip));
  if (g_help.walks()) log_stack(here);
  write_dump(nullptr);
}

void choose_dump_path() {
  wchar_t folder[MAX_PATH - 32];
  const DWORD size = ::GetTempPathW(MAX_PATH - 32, folder);
  if (size == 0 || size >= MAX_PATH - 32) return;
  std::swprintf(g_dump_path, MAX_PATH, L"%lskorvex-%lu.dmp", folder, ::GetCurrentProcessId());
}

int install() {
  g_help.load();
  choose_dump_path();
  if (g_help.walks()) g_help.initialize(::GetCurrentProcess(), nullptr, TRUE);
  if (std::signal(SIGABRT, on_abort) == SIG_ERR) return -1;
  g_previous = ::SetUnhandledExceptionFilter(on_crash);
  return 0;
}

}  // namespace

int crash_handler_install() {
  static const int result = install();
  return result;
}

}  // namespace korvex::platform
