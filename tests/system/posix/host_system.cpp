#include "host_system.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <iterator>

namespace host_system {
namespace {

constexpr const char* data_home = "XDG_DATA_HOME";

}  // namespace

const char* const null_device = "/dev/null";
const bool files_are_private = true;
const bool ending_has_any_case = false;
const char* const mapping_call = "mmap";
const long error_no_memory = ENOMEM;
const long error_too_long = EINVAL;
const int patience = 1;

bool aborted(int status) {
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
}

std::string command(const char* path) {
  return path;
}

int exit_code(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void end_process(int code) {
  std::exit(code);
}

void output_to_errors() {
  dup2(STDERR_FILENO, STDOUT_FILENO);
}

void* load_library(const char* path) {
  return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

std::string load_error() {
  return dlerror();
}

void* find_function(void* library, const char* name) {
  return dlsym(library, name);
}

void free_library(void* library) {
  dlclose(library);
}

std::size_t open_handles() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

double processor_seconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

bool make_link(const std::filesystem::path& target, const std::filesystem::path& link) {
  std::filesystem::create_symlink(target, link);
  return true;
}

user_folder::user_folder(const std::filesystem::path& empty) : path_(empty) {
  if (const char* const before = std::getenv(data_home)) before_ = before;
  setenv(data_home, path_.c_str(), 1);
}

user_folder::~user_folder() {
  before_ ? setenv(data_home, before_->c_str(), 1) : unsetenv(data_home);
}

}  // namespace host_system
