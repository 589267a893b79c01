#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <vector>

#include "engine/configuration.h"
#include "engine/insertion.h"
#include "engine/points.h"
#include "engine/teardown.h"
#include "runtime/log.h"
#include "tests/cli/tool_test.h"

namespace korvex::cli {
namespace {

using nlohmann::json;
using testing_support::ToolTest;

// korvex verify and korvex info on an index of 60 points, one of them deleted.
class IndexVerbs : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    log_init(64'000, 0);
    log_setfd(0);
    index_ = korvex_init(4, 0, path("base").c_str(), "points");
    korvex_set_threads(index_, 0);
    korvex_set_alloc_units(index_, 64, 0);
    korvex_enable_label(index_, 1);
    std::mt19937 random(1);
    std::normal_distribution<float> component;
    for (int i = 0; i < 60; ++i) {
      const float vector[] = {component(random), component(random), component(random),
                              component(random)};
      korvex_add(index_, vector, 0);
    }
    korvex_delete(index_, 5, 0);
  }
  void TearDown() override {
    close();
    ToolTest::TearDown();
  }
  void close() {
    korvex_free(index_);
    index_ = nullptr;
  }

  std::string folder() const { return path("base/nimbra-korvex/0"); }

  hnsw_s* index_ = nullptr;
};

TEST_F(IndexVerbs, ACleanIndexAndWhatItHolds) {
  close();
  ASSERT_EQ(run("verify " + path("base")), 0) << err_ << out_;
  EXPECT_NE(out_.find("60 points: 59 live, 1 deleted, 0 duplicate, 0 unlinked"), std::string::npos);
  EXPECT_NE(out_.find("0 errors, 0 warnings"), std::string::npos);

  ASSERT_EQ(run("verify --json --name points " + folder()), 0) << err_;
  const json checked = json::parse(out_);
  EXPECT_EQ(checked["clean"], true);
  EXPECT_EQ(checked["statistics"]["points"], 60);

  ASSERT_EQ(run("info --json " + path("base")), 0) << err_;
  const json info = json::parse(out_);
  EXPECT_EQ(info["configuration"]["dimension"], 4);
  EXPECT_EQ(info["configuration"]["metric"], "l2sq");
  EXPECT_EQ(info["configuration"]["neighbours"], 32);
  EXPECT_EQ(info["configuration"]["labels"], true);
  EXPECT_EQ(info["counts"]["live"], 59);
  std::uint64_t bytes = 0;
  for (const json& file : info["files"]) {
    EXPECT_EQ(file["bytes"],
              std::filesystem::file_size(folder() + "/" + std::string(file["name"])));
    bytes += std::uint64_t{file["allocated_bytes"]};
  }
  EXPECT_EQ(info["allocated_bytes"], bytes);
  EXPECT_EQ(info["files"].size(), 8u);
  ASSERT_EQ(run("info " + path("base")), 0) << err_;
  EXPECT_NE(out_.find("dimension          4\n"), std::string::npos) << out_;
}

TEST_F(IndexVerbs, ExitCodesTellWhatWasFound) {
  struct row {
    std::string arguments;
    int code;
    std::string out, err;
  };
  const std::vector<row> open = {{"verify " + path("base"), 1, "", "is in use"},
                                 {"verify --force " + path("base"), 0, "60 points", ""},
                                 {"info " + path("base"), 0, "(in use)", ""}};
  const auto expect = [this](const std::vector<row>& rows) {
    for (const row& each : rows) {
      EXPECT_EQ(run(each.arguments), each.code) << each.arguments << "\n" << err_ << out_;
      EXPECT_NE(out_.find(each.out), std::string::npos) << each.arguments << "\n" << out_;
      EXPECT_NE(err_.find(each.err), std::string::npos) << each.arguments << "\n" << err_;
    }
  };
  expect(open);
  close();
  std::filesystem::create_directories(path("empty"));
  std::filesystem::create_directories(path("hollow"));
  for (const char* file : {"hollow/none.korvex", "note.txt"}) std::ofstream(path(file)) << "";
  EXPECT_EQ(run("verify " + folder() + "/points.korvex"), 0) << err_;
  for (const auto& entry : std::filesystem::directory_iterator(folder()))
    if (entry.path().filename().string().starts_with("points-labels"))
      std::filesystem::resize_file(entry.path(), 100);
  const std::vector<row> damaged = {
      {"verify " + path("base"), 5, "error    blocks: points-labels", "points: 2 findings"},
      {"verify " + path("empty"), 3, "", "no index in"},
      {"verify " + path("absent"), 3, "", "no such directory"},
      {"verify " + path("note.txt"), 3, "", "neither a directory nor an index file"},
      {"verify " + path("hollow"), 3, "", "hollow/none.korvex is empty"},
      {"verify --name other " + path("base"), 3, "", "there is: points"},
      {"verify", 2, "", "directory"},
      {"info " + path("empty"), 3, "", "no index in"}};
  expect(damaged);
}

}  // namespace
}  // namespace korvex::cli
