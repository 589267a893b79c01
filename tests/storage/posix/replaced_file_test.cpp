// Names that others take away or give to another file while an allocator opens or closes its own.
#include <algorithm>
#include <string>

#include "runtime/platform/files.h"
#include "storage/persistent_allocator.h"
#include "storage/storage_fixture.h"

namespace korvex {
namespace {

std::string replaced_path;  // by a hook, while it is being opened

class ReplacedFile : public testing_support::StorageFixture {
 protected:
  // An allocator file that holds one block.
  std::string sample() {
    persistent_malloc_s* const made = persistent_malloc_init(file_.c_str(), 20'000);
    std::fill_n(static_cast<char*>(persistent_malloc(made, 7, 100, nullptr)), 100, 'k');
    persistent_malloc_destroy(made);
    return read_file(file_);
  }
  void replace_with(const std::string& bytes) {
    write_file(file_ + ".next", bytes);
    platform::rename_file((file_ + ".next").c_str(), file_.c_str());
  }

  const std::string file_ = path("replaced");
};

// What is written into a file without a name is lost.
TEST_F(ReplacedFile, IsFoundWhenItHappensBeforeTheLock) {
  const std::string bytes = sample();
  replaced_path = file_;
  for (const bool existed : {true, false}) {
    platform::remove_file(file_.c_str());
    if (existed) write_file(file_, std::string(bytes.size(), 'x'));
    write_file(file_ + ".next", bytes);
    platform::current_fault_hook = [](platform::fault_point at) {
      if (at == platform::fault_point::map_file)
        platform::rename_file((replaced_path + ".next").c_str(), replaced_path.c_str());
      return false;
    };
    persistent_malloc_s* const opened = persistent_malloc_init(file_.c_str(), 20'000);
    stop_failing();
    ASSERT_NE(opened, nullptr);
    unsigned old_size = 0;
    EXPECT_EQ(*static_cast<char*>(persistent_malloc(opened, 7, 100, &old_size)), 'k');
    EXPECT_EQ(old_size, 100U);
    EXPECT_EQ(persistent_malloc_lock(opened), 0);
    persistent_malloc_destroy(opened);
    EXPECT_EQ(read_file(file_), bytes);
  }
  persistent_malloc_s* const opened = persistent_malloc_init(file_.c_str(), 0);
  ASSERT_NE(opened, nullptr);
  platform::remove_file(file_.c_str());
  EXPECT_EQ(persistent_malloc_lock(opened), -1);
  persistent_malloc_destroy(opened);
}

TEST_F(ReplacedFile, IsNotRemovedInPlaceOfTheOwn) {
  const std::string bytes = sample();
  persistent_malloc_s* allocator = persistent_malloc_init(file_.c_str(), 0);
  ASSERT_NE(allocator, nullptr);
  replace_with(bytes);
  persistent_malloc_destroy_and_remove(allocator);
  EXPECT_EQ(read_file(file_), bytes);
  allocator = persistent_malloc_init(file_.c_str(), 0);
  ASSERT_NE(allocator, nullptr);
  persistent_malloc_destroy_and_remove(allocator);
  EXPECT_FALSE(platform::status_of(file_.c_str()).exists);
}

}  // namespace
}  // namespace korvex
