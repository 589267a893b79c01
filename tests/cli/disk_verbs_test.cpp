#include <algorithm>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>

#include "cli/readers/vector_file.h"
#include "sanitizers.h"
#include "tests/cli/tool_test.h"

namespace korvex::cli {
namespace {

using nlohmann::json;
using testing_support::base_rows;
using testing_support::dimension;
using testing_support::front_of;
using testing_support::fvecs;
using testing_support::query_rows;
using testing_support::random_matrix;
using testing_support::ToolTest;

double dot(const float* a, const float* b) {
  return std::inner_product(a, a + dimension, b, 0.0);
}

// What the tool prints for a pair of vectors.
double shown(const std::string& metric, const float* a, const float* b) {
  if (metric == "ip") return dot(a, b);
  if (metric == "cosine") return 1 - dot(a, b) / std::sqrt(dot(a, a) * dot(b, b));
  const double square = dot(a, a) + dot(b, b) - 2 * dot(a, b);
  return metric == "l2" ? std::sqrt(square) : square;
}

// build, add, search, delete on the same random vectors.
class DiskVerbs : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    base_ = random_matrix(base_rows, dimension, 1);
    queries_ = random_matrix(query_rows, dimension, 2);
    write("base.fvecs", fvecs(base_));
    write("queries.fvecs", fvecs(queries_));
  }

  // The ids that a search prints, a vector for each query.
  std::vector<json> search(const std::string& arguments) {
    EXPECT_EQ(run("search index queries.fvecs --to json " + arguments), 0) << err_;
    std::vector<json> answers;
    std::istringstream lines(out_);
    for (std::string line; std::getline(lines, line);) answers.push_back(json::parse(line));
    return answers;
  }

  // Answers must hold 99 of 100 exact ones, and right distances.
  void expect_near(const std::vector<json>& answers, const std::string& metric, std::size_t rows,
                   const std::vector<std::uint32_t>& hidden = {}) {
    ASSERT_EQ(answers.size(), query_rows);
    std::size_t hits = 0;
    for (std::size_t query = 0; query < query_rows; ++query) {
      std::vector<double> exact;
      for (std::uint32_t row = 0; row < rows; ++row)
        if (std::find(hidden.begin(), hidden.end(), row) == hidden.end())
          exact.push_back(shown(metric, base_.row(row), queries_.row(query)));
      std::sort(exact.begin(), exact.end());
      if (metric == "ip") std::reverse(exact.begin(), exact.end());
      const json& answer = answers[query];
      ASSERT_EQ(answer["query"], query);
      ASSERT_EQ(answer["ids"].size(), 10u);
      for (std::size_t i = 0; i < 10; ++i) {
        const std::uint32_t id = answer["ids"][i];
        const double distance = answer["distances"][i];
        ASSERT_EQ(std::find(hidden.begin(), hidden.end(), id), hidden.end());
        ASSERT_NEAR(distance, shown(metric, base_.row(id), queries_.row(query)), 0.05) << metric;
        const double slack = 1e-4 * std::abs(exact[9]) + 1e-4;
        hits += metric == "ip" ? distance >= exact[9] - slack : distance <= exact[9] + slack;
      }
    }
    EXPECT_GE(hits, query_rows * 10 * 99 / 100) << metric;
  }

  matrix base_, queries_;
};

TEST_F(DiskVerbs, EveryMetricFindsTheNearestAndVerifyFindsNothing) {
  for (const std::string metric : {"l2sq", "l2", "ip", "cosine"}) {
    std::filesystem::remove_all(path("index"));
    ASSERT_EQ(run("build index base.fvecs --metric " + metric), 0) << err_;
    EXPECT_EQ(err_, "");
    EXPECT_TRUE(out_.starts_with("added 600 vectors, ids 0 to 599, in ")) << out_;
    ASSERT_EQ(run("verify index"), 0) << out_ << err_;
    expect_near(search("--radius 300"), metric, base_rows);
  }
}

TEST_F(DiskVerbs, AddGoesOnWhereTheIndexEndsAndSkipWhereAFileWasLeft) {
  write("front.fvecs", fvecs(front_of(base_, 400)));
  ASSERT_EQ(run("build index front.fvecs --name shop"), 0) << err_;
  ASSERT_EQ(run("add index base.fvecs --skip 400 --rows 150 --json"), 0) << err_;
  const json added = json::parse(out_);
  EXPECT_EQ(added["added"], 150);
  EXPECT_EQ(added["first_id"], 400);
  EXPECT_EQ(added["last_id"], 549);
  ASSERT_EQ(shell("tail -c $((50 * 36)) base.fvecs | korvex add index - --format fvecs"), 0)
      << err_;
  EXPECT_NE(out_.find("ids 550 to 599"), std::string::npos) << out_;
  ASSERT_EQ(run("verify index"), 0) << out_;
  expect_near(search("--radius 300 --name shop"), "l2sq", base_rows);
}

TEST_F(DiskVerbs, DeletedVectorsAreNotFoundUntilTheyAreRestored) {
  ASSERT_EQ(run("build index base.fvecs"), 0) << err_;
  const auto before = search("--radius 300");
  const std::uint32_t nearest = before[0]["ids"][0];
  std::vector<std::uint32_t> hidden = {nearest};
  for (std::uint32_t id = 100; id < 110; ++id) hidden.push_back(id);
  ASSERT_EQ(shell("echo " + std::to_string(nearest) + " | korvex delete index 100-109 --ids -"), 0)
      << err_;
  EXPECT_EQ(out_, "deleted 11\n");
  expect_near(search("--radius 300"), "l2sq", base_rows, hidden);
  // One id that does not exist, and nothing is changed.
  EXPECT_EQ(run("delete index 1 2 600"), 2);
  EXPECT_NE(err_.find("there is no id 600: expected ids below 600"), std::string::npos) << err_;
  ASSERT_EQ(run("delete index 100-110 " + std::to_string(nearest) + " --restore"), 0) << err_;
  EXPECT_EQ(out_, "restored 11 (1 already there)\n");
  EXPECT_EQ(search("--radius 300"), before);
  ASSERT_EQ(run("verify index"), 0) << out_;
}

TEST_F(DiskVerbs, LabelsComeBackWithTheAnswers) {
  std::string text;
  std::string idx{'\0', '\0', '\x08', '\x01'};
  idx += testing_support::bytes_of(static_cast<std::uint32_t>(base_rows), std::endian::big);
  for (std::size_t i = 0; i < base_rows; ++i) {
    text += std::to_string(i == 7 ? 18446744073709551615u : 5'000'000'000 + i) + "\n";
    idx += static_cast<char>(i % 251);
  }
  write("labels.txt", text);
  write("labels.gz", idx);
  ASSERT_EQ(run("build index base.fvecs --labels labels.txt"), 0) << err_;
  for (const json& answer : search("-k 20"))
    for (std::size_t i = 0; i < answer["ids"].size(); ++i) {
      const std::uint64_t id = answer["ids"][i];
      EXPECT_EQ(answer["labels"][i], id == 7 ? 18446744073709551615u : 5'000'000'000 + id);
    }
  ASSERT_EQ(run("build other base.fvecs --labels labels.gz"), 0) << err_;
  ASSERT_EQ(run("search other base.fvecs -k 1 --rows 300"), 0) << err_;
  std::istringstream lines(out_);
  for (std::uint32_t query = 0; query < 300; ++query) {
    std::uint32_t found = 0, rank = 0, id = 0, label = 0;
    float distance = 1;
    ASSERT_TRUE(lines >> found >> rank >> id >> distance >> label) << out_;
    EXPECT_EQ(std::make_tuple(found, rank, id, label),
              std::make_tuple(query, 1u, query, query % 251));
    EXPECT_EQ(distance, 0.0f);
  }
}

TEST_F(DiskVerbs, ResultsInFilesAreThoseOnStandardOutput) {
  write("few.fvecs", fvecs(front_of(base_, 3)));
  ASSERT_EQ(run("build index few.fvecs"), 0) << err_;
  const auto answers = search("-k 4");
  ASSERT_EQ(run("search index queries.fvecs -k 4 -o ids.ivecs --distances far.npy"), 0) << err_;
  EXPECT_EQ(out_, "");
  ASSERT_EQ(run("search index queries.fvecs -k 4 --to npy -o ids.bin"), 0) << err_;
  for (const vector_input& input :
       {vector_input{path("ids.ivecs")}, vector_input{path("ids.bin"), vector_format::npy}}) {
    const auto ids = open_vector_file(input);
    ASSERT_EQ(ids->dimension(), 4u);
    std::int64_t row[4];
    for (const json& answer : answers) {
      ASSERT_EQ(ids->read(1, row), 1u);
      for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(row[i], answer["ids"][i]);
      EXPECT_EQ(row[3], -1);
    }
    EXPECT_EQ(ids->read(1, row), 0u);
  }
  const auto far = open_vector_file({path("far.npy")});
  float distances[4];
  ASSERT_EQ(far->read(1, distances), 1u);
  EXPECT_NEAR(distances[2], answers[0]["distances"][2], 1e-3);
  EXPECT_TRUE(std::isnan(distances[3]));
}

TEST_F(DiskVerbs, TuneBenchAndGroundtruthAgreeOnTheRecall) {
  const matrix more = random_matrix(200, dimension, 3);
  write("more.fvecs", fvecs(more));
  ASSERT_EQ(run("build index base.fvecs --probes 1 --constellation 4"), 0) << err_;
  ASSERT_EQ(run("tune index more.fvecs --recall 0.9 --json"), 0) << err_;
  const json tuned = json::parse(out_);
  EXPECT_GE(tuned["recall"], 0.9);
  EXPECT_GT(tuned["held_out_recall"], 0.8);
  EXPECT_EQ(tuned["queries"], 100);
  const int radius = tuned["radius"];
  ASSERT_EQ(run("bench index more.fvecs --radii " + std::to_string(radius) +
                " --query-rows 0 --recall --rounds 2 --threads 2 --json"),
            0)
      << err_;
  const json bench = json::parse(out_)["results"][0];
  const double both = (double{tuned["recall"]} + double{tuned["held_out_recall"]}) / 2;
  EXPECT_NEAR(bench["recall"], both, 1e-6);
  EXPECT_EQ(bench["queries_per_second_by_round"].size(), 2u);

  // Ids of the exact answers against ids of the search.
  ASSERT_EQ(run("groundtruth base.fvecs more.fvecs -k 10 -o truth.ivecs"), 0) << err_;
  ASSERT_EQ(run("search index more.fvecs -o found.ivecs --radius " + std::to_string(radius)), 0);
  const id_rows truth = read_id_file({path("truth.ivecs")}, 200);
  const id_rows found = read_id_file({path("found.ivecs")}, 200);
  std::size_t hits = 0;
  for (std::size_t i = 0; i < truth.ids.size(); ++i) {
    const auto row = found.ids.begin() + static_cast<std::ptrdiff_t>(i / 10 * 10);
    hits += std::find(row, row + 10, truth.ids[i]) != row + 10;
  }
  EXPECT_NEAR(static_cast<double>(hits) / 2000, both, 1e-6);

  ASSERT_EQ(run("tune index more.fvecs --recall 1 --most-radius 9"), 6) << err_;
  EXPECT_NE(err_.find("at the largest radius, 9"), std::string::npos) << err_;
}

// What is told before holds afterwards.
TEST_F(DiskVerbs, TheEstimateIsCloseToTheFiles) {
  constexpr int n = test::thread_sanitized ? 2'000 : 6'000;
  const matrix wide = random_matrix(n, 96, 4);
  write("wide.fvecs", fvecs(wide));
  ASSERT_EQ(run("estimate " + std::to_string(n) + " 96 --json"), 0) << err_;
  const json estimate = json::parse(out_);
  ASSERT_EQ(run("build index wide.fvecs --probes 1 --radius 20"), 0) << err_;
  ASSERT_EQ(run("info index --json"), 0) << err_;
  const double data = json::parse(out_)["allocated_bytes"];
  constexpr double whole_steps = 8e6;  // of files that are smaller than one
  EXPECT_GE(double{estimate["disk_bytes"]}, 0.97 * data);
  EXPECT_LE(double{estimate["disk_bytes"]}, 1.03 * data + whole_steps);
}

}  // namespace
}  // namespace korvex::cli
