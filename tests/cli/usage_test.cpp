#include <sstream>

#include "cli/errors.h"
#include "tests/cli/tool_test.h"

namespace korvex::cli {
namespace {

using testing_support::fvecs;
using testing_support::random_matrix;
using testing_support::ToolTest;

constexpr const char* verbs[] = {"build",   "add",      "search",   "delete", "info",
                                 "verify",  "eval",     "tune",     "bench",  "groundtruth",
                                 "convert", "estimate", "disk-test"};

class Usage : public ToolTest {
 protected:
  bool exists(const std::string& name) { return std::filesystem::exists(path(name)); }
};

TEST_F(Usage, ErrorsSayWhatWasGivenAndExpectedAndLeaveNothing) {
  matrix base = random_matrix(50, 4, 1);
  write("good.fvecs", fvecs(base));
  write("other.fvecs", fvecs(random_matrix(5, 3, 1)));
  write("cut.fvecs", fvecs(base).substr(0, 990));
  base.values[45 * 4 + 2] = std::numeric_limits<float>::infinity();
  write("inf.fvecs", fvecs(base));
  base.values.assign(200, 1.0f);
  std::fill_n(base.values.begin() + 4 * 7, 4, 0.0f);
  write("zero.fvecs", fvecs(base));
  write("labels.txt", "1\n2\n3\n");
  write("words.txt", "1\ntwo\n");
  ASSERT_EQ(run("build index good.fvecs"), 0) << err_;
  ASSERT_EQ(run("info index"), 0);
  const std::string before = out_;
  std::filesystem::create_directories(path("there"));
  const struct {
    std::string arguments;
    int code;
    std::string text;
  } cases[] = {
      {"", 2, "subcommand"},
      {"bulid new good.fvecs", 2, "subcommand"},
      {"build new", 2, "vectors"},
      {"build new none.fvecs", 3, "none.fvecs: there is no such file"},
      {"build new cut.fvecs", 3, "cut.fvecs: 990 bytes, expected a multiple of 20"},
      {"build there inf.fvecs", 3, "row 45, column 2 holds inf, expected a finite number"},
      {"build there zero.fvecs --metric cosine", 3, "row 7 is all zeros"},
      {"build there - --format fvecs < inf.fvecs", 3, "row 45, column 2 holds inf"},
      {"build there - < good.fvecs", 3, "or --format"},
      {"build new good.fvecs --labels labels.txt", 3, "3 labels, expected one for each of 50"},
      {"build new good.fvecs --rows 2 --labels words.txt", 3, "'two', expected a whole number"},
      {"build new good.fvecs --metric euclid", 2, "--metric"},
      {"build new good.fvecs --name a/b", 2, "expected a name without slashes"},
      {"build new good.fvecs --skip 51", 3, "fewer rows than --skip 51"},
      {"build index good.fvecs", 1, "index holds an index nimbra-korvex already"},
      {"add index other.fvecs", 3, "vectors of 3 dimensions, expected 4 as in the index"},
      {"add index inf.fvecs", 3, "row 45, column 2"},
      {"add index good.fvecs --labels labels.txt", 2, "built without labels"},
      {"add new good.fvecs", 3, "new: no such directory"},
      {"search index other.fvecs", 3, "vectors of 3 dimensions, expected 4"},
      {"search index good.fvecs -k 0", 2, "-k"},
      {"search index good.fvecs -o no/where.txt", 4, "no/where.txt: cannot be written"},
      {"search index good.fvecs --name x", 3, "there is: nimbra-korvex"},
      {"delete index", 2, "no ids were given"},
      {"delete index 7-3", 2, "expected the smaller id first"},
      {"delete index seven", 2, "'seven': expected an id such as 17"},
      {"tune index good.fvecs --recall 2", 2, "--recall"},
      {"bench index good.fvecs -k 51 --recall", 2, "expected at most 50"},
      {"groundtruth good.fvecs other.fvecs", 3, "vectors of 3 dimensions, expected 4"},
      {"groundtruth good.fvecs good.fvecs -k 51 -o new", 2, "expected at most 50"},
      {"estimate 0 5", 2, "vectors"},
      {"disk-test nowhere", 3, "there is no such directory"},
      {"eval --base good.fvecs --queries good.fvecs --radii 40 --fail-if-recall-below 1.5", 2,
       "--fail-if-recall-below"}};
  for (const auto& each : cases) {
    EXPECT_EQ(run(each.arguments), each.code) << each.arguments << "\n" << err_;
    EXPECT_NE(err_.find(each.text), std::string::npos) << each.arguments << "\n" << err_;
    EXPECT_EQ(out_, "") << each.arguments;
    EXPECT_FALSE(exists("new")) << each.arguments;
    EXPECT_TRUE(std::filesystem::is_empty(path("there"))) << each.arguments;
  }
  ASSERT_EQ(run("info index"), 0);
  EXPECT_EQ(out_, before);
}

// What came before the damage in a stream stays, and is said.
TEST_F(Usage, ADamagedStreamLeavesWhatCameBeforeInAnIndexThatWasThere) {
  matrix base = random_matrix(2'000, 4, 1);
  write("good.fvecs", fvecs(base));
  ASSERT_EQ(run("build index good.fvecs"), 0) << err_;
  EXPECT_EQ(shell("head -c 39990 good.fvecs | korvex add index - --format fvecs"), 3);
  EXPECT_NE(err_.find("vectors were added before this"), std::string::npos) << err_;
  EXPECT_NE(err_.find("ends inside row 1999: found 6 of its 16 bytes"), std::string::npos) << err_;
  EXPECT_EQ(run("verify index"), 0) << out_;
}

TEST_F(Usage, TheDriveIsMeasuredOnceAndLeftAsItWas) {
  std::filesystem::create_directories(path("drive"));
  const int code = run("disk-test drive --seconds 1 --file 4194304 --json");
  if (code == 1 && err_.find("failed to open") != std::string::npos)
    GTEST_SKIP() << "no unbuffered files here";
  ASSERT_EQ(code, 0) << err_;
  EXPECT_NE(out_.find("\"measured_now\":true"), std::string::npos) << out_;
  ASSERT_EQ(run("disk-test drive"), 0) << err_;
  EXPECT_NE(out_.find("measured earlier"), std::string::npos) << out_;
  EXPECT_FALSE(exists("drive/iops_test.inprogress"));
}

TEST_F(Usage, EveryVerbExplainsItselfWithinEightyColumns) {
  for (const char* verb : verbs) {
    ASSERT_EQ(run(std::string(verb) + " --help"), 0) << verb;
    EXPECT_NE(out_.find("\nExamples:\n  korvex " + std::string(verb)), std::string::npos) << out_;
    std::istringstream lines(out_);
    bool example = false;
    for (std::string line; std::getline(lines, line); example |= line == "Examples:")
      if (!example) EXPECT_LE(line.size(), 80u) << verb << ": " << line;
  }
  ASSERT_EQ(run("--version"), 0);
  for (const char* text : {"korvex ", "\nbuild ", "\nkernels ", "HDF5 "})
    EXPECT_NE(out_.find(text), std::string::npos) << out_;
}

TEST_F(Usage, ManPageAndCompletionCoverEveryVerb) {
  ASSERT_EQ(shell("korvex generate man >korvex.1 && korvex generate bash >korvex.bash"), 0) << err_;
  const std::string page = read_file(path("korvex.1"));
  for (const char* verb : verbs) {
    std::string name = verb;
    if (const std::size_t dash = name.find('-'); dash != std::string::npos) name.insert(dash, "\\");
    EXPECT_NE(page.find(".SS " + name + "\n"), std::string::npos) << verb;
  }
  if (has_program("man")) {
    ASSERT_EQ(shell("LC_ALL=C.UTF-8 MANROFFSEQ= man --warnings -l korvex.1 | cat"), 0) << err_;
    EXPECT_EQ(err_, "");
    EXPECT_NE(out_.find("EXIT STATUS"), std::string::npos);
  }
  ASSERT_EQ(shell("bash -n korvex.bash"), 0) << err_;
  const struct {
    std::string words;
    std::string offered;
  } cases[] = {{"korvex est", "estimate"},
               {"korvex build --met", "--metric"},
               {"korvex build --metric co", "cosine"},
               {"korvex search index good.f", "good.fvecs"},
               {"korvex search --radius ", ""}};
  write("good.fvecs", "");
  for (const auto& each : cases) {
    ASSERT_EQ(shell("source ./korvex.bash; line='" + each.words +
                    "'; read -ra COMP_WORDS <<<\"$line\"; [[ $line == *' ' ]] && COMP_WORDS+=(''); "
                    "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _korvex; echo \"${COMPREPLY[*]}\""),
              0)
        << err_;
    EXPECT_EQ(out_, each.offered + "\n") << each.words << err_;
  }
}

TEST_F(Usage, TheReadmeListsTheExitCodes) {
  const std::string readme = read_file(KORVEX_README_PATH);
  for (const exit_code_entry& each : exit_codes)
    EXPECT_NE(readme.find(std::string("| ") + each.code + " | " + each.meaning + " |"),
              std::string::npos)
        << each.code;
}

}  // namespace
}  // namespace korvex::cli
