#include <filesystem>

#include "fuzz/target.h"
#include "runtime/log.h"
#include "runtime/platform/threads.h"

namespace korvex::fuzz {

namespace fs = std::filesystem;

namespace {

fs::path fastest_directory() {
  const fs::path in_memory = "/dev/shm";
  std::error_code error;
  return fs::is_directory(in_memory, error) ? in_memory : fs::temp_directory_path();
}

}  // namespace

workshop::workshop(const char* name, const std::function<void(const workshop&)>& build,
                   const std::string& below)
    : base_((fastest_directory() /
             ("korvex-fuzz-" + std::to_string(platform::process_id()) + "-" + std::string(name)))
                .string()),
      path_(base_ + below) {
  silence();
  put_images({}, path_);
  build(*this);
  images_ = take_images(path_);
  if (images_.empty()) fail(__FILE__, __LINE__, "nothing was built");
}

workshop::~workshop() {
  std::error_code error;
  fs::remove_all(base_, error);
}

void workshop::lay_out(input* in, const std::string& only) const {
  put_images(images_, path_);
  std::vector<file_image> chosen = images_;
  if (!only.empty())
    std::erase_if(chosen, [&](const file_image& image) { return image.name != only; });
  apply_damage(in, chosen, path_);
}

std::vector<std::string> workshop::contents() const {
  std::vector<std::string> all;
  for (const file_image& image : images_) all.push_back(beginning_of(path_ + "/" + image.name));
  return all;
}

void silence() {
  log_init(64'000, 0);
  log_setfd(0);
}

}  // namespace korvex::fuzz
