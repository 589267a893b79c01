#ifndef KORVEX_CLI_ANSWER_WRITER_H
#define KORVEX_CLI_ANSWER_WRITER_H

#include <cstdint>
#include <memory>
#include <string>

#include "cli/disk_index.h"
#include "cli/query_batch.h"
#include "cli/writers/output_file.h"
#include "cli/writers/vector_writer.h"

namespace CLI {
class App;
}

namespace korvex::cli {

// How answers are handed out.
struct answer_options {
  std::string to = "auto";  // text, json, ivecs, npy; auto: by the output's name, else text
  std::string output;       // empty: standard output
  std::string distances;    // a file for them alone; empty: none
};
void add_answer_options(CLI::App& command, answer_options& options);

// Writes the answers of one batch after the other, queries numbered from 0.
class answer_writer {
 public:
  // `rows` queries will come; 0: not known.
  answer_writer(const answer_options& options, const disk_index& index, int k, std::uint64_t rows);

  void write(const answer_rows& answers);
  void commit();

 private:
  std::string line_text(const answer_rows& answers, std::size_t row) const;
  std::string line_json(const answer_rows& answers, std::size_t row) const;
  void write_matrices(const answer_rows& answers);
  std::uint64_t label(std::uint32_t id) const;

  const disk_index& index_;
  const bool json_;
  std::uint64_t next_query_ = 0;
  std::unique_ptr<output_file> lines_;        // text and json
  std::unique_ptr<vector_writer> ids_;        // ivecs and npy
  std::unique_ptr<vector_writer> distances_;  // null: none
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_ANSWER_WRITER_H
