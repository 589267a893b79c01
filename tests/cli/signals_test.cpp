#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/readers/vector_file.h"
#include "sanitizers.h"
#include "tests/cli/tool_test.h"

namespace korvex::cli {
namespace {

using nlohmann::json;
using testing_support::fvecs;
using testing_support::random_matrix;
using testing_support::ToolTest;

// Ctrl-C, terminals and pipes.
class Signals : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    write("base.fvecs", fvecs(random_matrix(3'000, 16, 1)));
  }
};

// The build is stopped while vectors still come: each block of them waits a little.
TEST_F(Signals, WhatAnInterruptedBuildReportsIsThereAndVerifies) {
  const struct {
    const char* signal;
    int code;
  } cases[] = {{"INT", 130}, {"TERM", 143}};
  for (const auto& each : cases) {
    std::filesystem::remove_all(path("index"));
    // A script ignores SIGINT for what it starts in the background: env puts it back.
    const std::string build =
        std::string(
            "for i in $(seq 1000); do cat base.fvecs || break; sleep 0.02; done 2>/dev/null | "
            "env --default-signal=INT " KORVEX_TOOL_PATH
            " build index - --format fvecs --threads 1 --radius 20 --json >report & "
            "until [ -d index ]; do sleep 0.01; done; sleep 0.3; "
            "kill -") +
        each.signal + " $!; wait $!";
    EXPECT_EQ(shell(build), each.code) << err_;
    EXPECT_NE(err_.find("interrupted after "), std::string::npos) << err_;
    const json report = json::parse(read_file(path("report")));
    EXPECT_EQ(report["interrupted"], true);
    const std::uint64_t added = report["added"];
    ASSERT_GT(added, 0u);
    ASSERT_EQ(run("verify index --json"), 0) << out_;
    EXPECT_EQ(json::parse(out_)["statistics"]["points"], added);
    EXPECT_EQ(json::parse(out_)["statistics"]["unlinked"], 0);
    // Every reported vector is found as the nearest of itself.
    const std::uint64_t asked = std::min<std::uint64_t>(added, 3'000);
    ASSERT_EQ(run("search index base.fvecs -k 1 --radius 100 -o ids.ivecs --distances far.fvecs "
                  "--rows " +
                  std::to_string(asked)),
              0)
        << err_;
    const auto far = open_vector_file({path("far.fvecs")});
    std::size_t lost = 0;
    for (float distance = 1; far->read(1, &distance) == 1;) lost += distance == 0.0f ? 0 : 1;
    EXPECT_LE(lost, asked / 100);
  }
}

TEST_F(Signals, AWaitForStandardInputEndsAtTheFirstSignal) {
  EXPECT_EQ(shell("mkfifo silent; sleep 20 >silent & sleeper=$!; " KORVEX_TOOL_PATH
                  " build index - --format fvecs <silent & sleep 0.5; "
                  "kill -TERM $!; wait $!; code=$?; kill $sleeper; exit $code"),
            143)
      << err_;
  EXPECT_FALSE(std::filesystem::exists(path("index")));
}

TEST_F(Signals, OnATerminalABuildShowsProgressAndInAPipeNone) {
  if (!has_program("script")) GTEST_SKIP() << "util-linux's script is not installed";
  // Long enough to be redrawn.
  const std::string thousands = test::thread_sanitized ? "1" : "3";
  write("some.fvecs", fvecs(random_matrix(test::thread_sanitized ? 1'000 : 3'000, 16, 1)));
  const std::string radius =
      std::string(" --threads 1 --radius ") + (test::thread_sanitized ? "300" : "2000");
  const std::string build = KORVEX_TOOL_PATH " build terminal some.fvecs" + radius;
  ASSERT_EQ(shell("script -qefc '" + build + "' typescript >shown"), 0) << err_;
  const std::string shown = read_file(path("shown"));
  EXPECT_NE(shown.find("adding: "), std::string::npos) << shown;
  EXPECT_NE(shown.find(" of " + thousands + ",000, "), std::string::npos) << shown;
  EXPECT_NE(shown.find("/s, "), std::string::npos) << shown;
  EXPECT_NE(shown.find(" left"), std::string::npos) << shown;
  EXPECT_NE(shown.find("added " + thousands + ",000 vectors"), std::string::npos) << shown;
  ASSERT_EQ(shell("script -qefc '" + build + " --name quiet --quiet' typescript >shown"), 0);
  EXPECT_EQ(read_file(path("shown")).find("adding"), std::string::npos);
  ASSERT_EQ(shell("korvex build pipe some.fvecs" + radius + " 2>&1 | cat"), 0);
  EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), 1) << out_;
  EXPECT_EQ(out_.find('\r'), std::string::npos);
}

TEST_F(Signals, AReaderThatGoesAwayEndsTheToolWithoutAWord) {
  ASSERT_EQ(run("build index base.fvecs"), 0) << err_;
  EXPECT_EQ(shell("korvex search index base.fvecs -k 50 | head -n 1"), 141);
  EXPECT_EQ(err_, "");
  EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), 1);
  ASSERT_EQ(run("verify index"), 0) << out_;
  if (!has_program("jq")) GTEST_SKIP() << "jq is not installed";
  ASSERT_EQ(shell("korvex search index base.fvecs -k 2 --to json --rows 5 | jq -c '.ids[0]'"), 0);
  EXPECT_EQ(out_, "0\n1\n2\n3\n4\n") << err_;
}

// One process at a time has an index open; the others are told so and change nothing.
TEST_F(Signals, AnIndexInUseIsRefused) {
  ASSERT_EQ(
      shell("(cat base.fvecs base.fvecs; touch begun; until [ -e tried ]; do sleep 0.01; done) "
            "| korvex build index - --format fvecs & "
            "until [ -e begun ]; do sleep 0.01; done; sleep 0.2; "
            "korvex search index base.fvecs; echo $?; korvex delete index 1; echo $?; "
            "korvex build index base.fvecs; echo $?; touch tried; wait"),
      0);
  EXPECT_TRUE(out_.starts_with("1\n1\n1\nadded 6,000")) << out_;
  EXPECT_NE(err_.find("is in use"), std::string::npos) << err_;
  EXPECT_EQ(run("verify index"), 0) << out_;
}

}  // namespace
}  // namespace korvex::cli
