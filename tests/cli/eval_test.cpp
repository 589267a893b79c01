#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>
#include <vector>

#include "cli/console.h"
#include "cli/dataset.h"
#include "cli/errors.h"
#include "cli/ground_truth.h"
#include "tests/cli/tool_test.h"

namespace korvex::cli {
namespace {

using nlohmann::json;
using testing_support::base_rows;
using testing_support::bytes_of;
using testing_support::dimension;
using testing_support::fvecs;
using testing_support::query_rows;
using testing_support::random_matrix;
using testing_support::ToolTest;

double distance_key(korvex_distance_type metric, const float* a, const float* b) {
  double sum = 0;
  for (std::size_t i = 0; i < dimension; ++i)
    sum += metric == DISTANCE_INNER_PRODUCT ? -double{a[i]} * b[i]
                                            : (double{a[i]} - b[i]) * (double{a[i]} - b[i]);
  return sum;
}

// Rows of the base, nearest first, in double precision.
std::vector<std::uint32_t> in_order(korvex_distance_type metric, const matrix& base,
                                    const float* query) {
  std::vector<std::uint32_t> rows(base.rows);
  std::iota(rows.begin(), rows.end(), 0u);
  std::sort(rows.begin(), rows.end(), [&](std::uint32_t a, std::uint32_t b) {
    return distance_key(metric, base.row(a), query) < distance_key(metric, base.row(b), query);
  });
  return rows;
}

class Eval : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    base_ = random_matrix(base_rows, dimension, 1);
    queries_ = random_matrix(query_rows, dimension, 2);
    write("base.fvecs", fvecs(base_));
    write("queries.fvecs.gz", fvecs(queries_));
  }

  std::string data() const {
    return "eval --base " + path("base.fvecs") + " --queries " + path("queries.fvecs.gz") +
           " --index-threads 2 --search-threads 2 ";
  }

  matrix base_, queries_;
};

TEST_F(Eval, JsonAloneOnStandardOutputAndTheLogInItsFile) {
  ASSERT_EQ(run(data() + "--json --radii 20,200 --rounds 2 --samples 3 --log " + path("log")), 0)
      << err_;
  const json report = json::parse(out_);
  EXPECT_EQ(err_, "");
  EXPECT_NE(read_file(path("log")).find("bulk queries"), std::string::npos);
  EXPECT_EQ(report["base"]["vectors"], base_rows);
  EXPECT_EQ(report["dimension"], dimension);
  EXPECT_GT(report["build_seconds"], 0.0);
  EXPECT_GT(report["bytes_per_vector"], double{dimension * 4});
  ASSERT_EQ(report["results"].size(), 2u);
  for (const json& at : report["results"]) {
    EXPECT_GE(at["recall"], 0.95) << at;
    EXPECT_GE(at["session_recall"], 0.95) << at;
    EXPECT_EQ(at["queries_per_second_by_round"].size(), 2u);
    EXPECT_GT(at["latency_p50_ms"], 0.0);
    EXPECT_LE(at["latency_p50_ms"], at["latency_p99_ms"]);
  }
  ASSERT_EQ(report["samples"]["queries"].size(), 3u);
  for (const json& sample : report["samples"]["queries"]) {
    const float* const query = queries_.row(sample["query_row"]);
    ASSERT_EQ(sample["neighbours"].size(), 10u);
    for (const json& near : sample["neighbours"])
      EXPECT_NEAR(near["distance"], distance_key(DISTANCE_L2_SQUARE, base_.row(near["row"]), query),
                  0.1);
  }
}

TEST_F(Eval, TheTableHasALineForEachRadiusAndTheLogGoesToStandardError) {
  ASSERT_EQ(
      run(data() +
          "--radii 30,60 --metric ip --probes 1 --scale-length 10 -k 7 --verbose --json-file " +
          path("report.json")),
      0)
      << err_;
  EXPECT_TRUE(out_.starts_with("base ")) << out_;
  for (const char* text :
       {"\n      30 ", "\n      60 ", "recall@7", "queries/s", "p99 ms", "metric ip"})
    EXPECT_NE(out_.find(text), std::string::npos) << text << " in " << out_;
  EXPECT_EQ(out_.find("Korvex"), std::string::npos) << out_;
  EXPECT_NE(err_.find("bulk queries"), std::string::npos);
  EXPECT_GE(json::parse(read_file(path("report.json")))["results"][1]["recall"], 0.95);
}

TEST_F(Eval, CosineCountsDirectionsWhateverTheLengths) {
  matrix long_and_short = base_;
  for (std::size_t i = 0; i < long_and_short.values.size(); ++i)
    long_and_short.values[i] *= static_cast<float>(1 + i / dimension % 7);
  write("base.fvecs", fvecs(long_and_short));
  ASSERT_EQ(run(data() + "--metric cosine --radii 200 --json --samples 3"), 0) << err_;
  const json report = json::parse(out_);
  EXPECT_EQ(report["metric"], "cosine");
  EXPECT_GE(report["results"][0]["recall"], 0.95);
  const auto dot = [](const float* a, const float* b) {
    return -distance_key(DISTANCE_INNER_PRODUCT, a, b);
  };
  for (const json& sample : report["samples"]["queries"])
    for (const json& near : sample["neighbours"]) {
      const float* const query = queries_.row(sample["query_row"]);
      const float* const found = long_and_short.row(near["row"]);
      EXPECT_NEAR(near["distance"],
                  1 - dot(query, found) / std::sqrt(dot(query, query) * dot(found, found)), 1e-5);
    }
  std::fill_n(long_and_short.values.begin() + 5 * dimension, dimension, 0.0f);
  write("base.fvecs", fvecs(long_and_short));
  EXPECT_EQ(run(data() + "--metric cosine"), 3);
  EXPECT_NE(err_.find("row 5 is all zeros"), std::string::npos) << err_;
}

TEST_F(Eval, GivenAnswersReplaceTheBruteForceRowByRow) {
  std::string right;
  std::string wrong;
  for (std::size_t query = 0; query < query_rows; ++query) {
    const auto rows = in_order(DISTANCE_L2_SQUARE, base_, queries_.row(query));
    right += bytes_of<std::int32_t>(12);
    wrong += bytes_of<std::int32_t>(12);
    for (std::size_t i = 0; i < 12; ++i) {
      right += bytes_of<std::int32_t>(static_cast<std::int32_t>(rows[i]));
      wrong += bytes_of<std::int32_t>(static_cast<std::int32_t>(rows[0]));
    }
  }
  write("right.ivecs", right);
  write("wrong.ivecs", wrong);
  // A choice of queries takes the same rows of the truth.
  for (const char* choice : {"", "--query-rows 17 --seed 5 "}) {
    ASSERT_EQ(run(data() + choice + "--json --radii 300 --truth " + path("right.ivecs")), 0)
        << err_;
    EXPECT_GE(json::parse(out_)["results"][0]["recall"], 0.99) << choice;
  }
  ASSERT_EQ(run(data() + "--json --radii 300 --truth " + path("wrong.ivecs")), 0) << err_;
  EXPECT_LE(json::parse(out_)["results"][0]["recall"], 0.2);
  // The recall that a build server asks for.
  EXPECT_EQ(
      run(data() + "--radii 20,300 --fail-if-recall-below 0.9 --truth " + path("right.ivecs")), 0)
      << err_;
  EXPECT_EQ(
      run(data() + "--radii 300,20 --fail-if-recall-below 0.9 --truth " + path("wrong.ivecs")), 6);
  EXPECT_NE(err_.find("at radius 300, expected 0.9 or more"), std::string::npos) << err_;
  EXPECT_EQ(run(data() + "--base-rows 100 --truth " + path("right.ivecs")), 3);
  EXPECT_NE(err_.find("expected one below 100"), std::string::npos) << err_;
}

TEST_F(Eval, ExitCodesTellWhatWentWrong) {
  matrix broken = base_;
  broken.values[3 * dimension + 1] = std::numeric_limits<float>::quiet_NaN();
  write("nan.fvecs", fvecs(broken));
  write("short.fvecs", "abc");
  write("other.bvecs", bytes_of(2) + "ab");
  const auto with = [&](const std::string& base, const std::string& queries) {
    return "eval --base " + path(base) + " --queries " + path(queries);
  };
  const struct {
    std::string arguments;
    int code;
    std::string text;
  } cases[] = {
      {"--help", 0, ""},
      {"eval --help", 0, ""},
      {"", 2, "subcommand"},
      {"eval", 2, "--base"},
      {"eval --unknown", 2, "--base"},
      {data() + "--metric cos", 2, "--metric"},
      {data() + "--probes 17", 2, "--probes"},
      {data() + "--radii 10,0", 2, "--radii"},
      {data() + "-k 601", 2, "expected at most 600"},
      {with("missing.fvecs", "queries.fvecs.gz"), 3, "missing.fvecs: there is no such file"},
      {with("short.fvecs", "queries.fvecs.gz"), 3, "short.fvecs: no row: found 3 bytes"},
      {with("nan.fvecs", "queries.fvecs.gz"), 3, "nan.fvecs: row 3, column 1 holds nan"},
      {with("base.fvecs", "other.bvecs"), 3, "vectors of 2 dimensions, expected 8"},
      {data() + "--truth " + path("base.fvecs"), 3, "expected ids (an ivecs file)"},
      {data() + "--log " + path("no/such/folder"), 4, "no/such/folder: cannot be written"},
      {data() + "--json-file " + path("no/such/folder"), 4, "no/such/folder: cannot be written"}};
  for (const auto& each : cases) {
    EXPECT_EQ(run(each.arguments), each.code) << each.arguments << "\n" << err_;
    EXPECT_NE(err_.find(each.text), std::string::npos) << each.arguments << "\n" << err_;
    if (each.code != 0) EXPECT_EQ(out_, "") << each.arguments;
  }
  if (std::filesystem::exists("/dev/full")) EXPECT_EQ(run(data() + ">/dev/full"), 4) << err_;
}

TEST_F(Eval, BruteForceFindsTheNearestInEveryMetricAndCountsTies) {
  start_console({host_system::null_device});  // a file here would stay open
  // The first row and the last are the same: either is right where one of them is.
  std::copy_n(base_.row(0), dimension, base_.values.end() - dimension);
  for (const auto metric : {DISTANCE_L2_SQUARE, DISTANCE_L2, DISTANCE_INNER_PRODUCT}) {
    for (const std::size_t k : {std::size_t{1}, std::size_t{10}, base_rows}) {
      const ground_truth truth = ground_truth::compute(base_, queries_, metric, k, 3);
      for (std::size_t query = 0; query < query_rows; ++query) {
        std::vector<std::uint32_t> rows = in_order(metric, base_, queries_.row(query));
        EXPECT_EQ(truth.recall(query, rows.data(), k), 1.0);
        EXPECT_NEAR(truth.recall(query, rows.data() + k, base_rows - k), 0.0,
                    1.0 / double(k) + 1e-9);
        const std::vector<std::uint32_t> repeated(k, rows[0]);
        EXPECT_DOUBLE_EQ(truth.recall(query, repeated.data(), k), 1.0 / static_cast<double>(k));
      }
    }
  }
  const ground_truth truth = ground_truth::compute(base_, base_, DISTANCE_L2_SQUARE, 1, 1);
  for (const std::uint32_t twin : {0u, static_cast<std::uint32_t>(base_rows - 1)})
    EXPECT_TRUE(truth.is_near(0, twin) && truth.is_near(base_rows - 1, twin));
  EXPECT_FALSE(truth.is_near(0, base_rows));
}

TEST(Dataset, AChoiceIsAscendingOfTheRightSizeAndFair) {
  EXPECT_EQ(choose(5, 5, 1), choose(5, 99, 2));
  EXPECT_EQ(choose(1000, 10, 3), choose(1000, 10, 3));
  std::vector<int> taken(20);
  for (unsigned seed = 0; seed < 4000; ++seed) {
    const std::vector<std::size_t> chosen = choose(20, 5, seed);
    ASSERT_EQ(chosen.size(), 5u);
    ASSERT_TRUE(std::is_sorted(chosen.begin(), chosen.end(), std::less_equal<>()));
    for (const std::size_t each : chosen) ++taken[each];
  }
  for (const int times : taken) EXPECT_NEAR(times, 1000, 150);  // five standard deviations
}

}  // namespace
}  // namespace korvex::cli
