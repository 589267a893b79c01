#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <memory>

#include "cli/console.h"
#include "cli/errors.h"
#include "cli/interrupt.h"
#include "cli/readers/vector_file.h"
#include "cli/verb.h"
#include "cli/writers/vector_writer.h"

// korvex convert: vectors from one file format to another.
namespace korvex::cli {

namespace {

constexpr std::size_t block_numbers = 1u << 18;

struct convert_choice {
  vector_input from;
  std::string output, from_format = "auto", to_format = "auto";
  std::uint64_t skip = 0, rows = 0;
  console_options console;
};

void skip_rows(vector_file& file, const convert_choice& choice, std::vector<double>& block) {
  const std::size_t step = block.size() / file.dimension();
  for (std::uint64_t left = choice.skip; left > 0;) {
    const std::size_t wanted = std::min<std::uint64_t>(step, left);
    if (file.read(wanted, block.data()) < wanted)
      throw file_error(choice.from.path, fmt::format("fewer rows than --skip {}", choice.skip));
    left -= wanted;
  }
}

// 0: only the end tells.
std::uint64_t rows_to_come(const vector_file& file, const convert_choice& choice) {
  if (!file.rows() || choice.from.path == standard_input) return 0;
  const std::uint64_t left = *file.rows() - std::min(*file.rows(), choice.skip);
  return choice.rows == 0 ? left : std::min(left, choice.rows);
}

void run_convert(convert_choice choice) {
  start_console(choice.console);
  const interrupt_guard guard;
  const vector_format format = output_format(choice.output, choice.to_format);
  choice.from.format = format_named(choice.from_format);
  const auto file = open_vector_file(choice.from);
  const std::size_t step = std::max<std::size_t>(block_numbers / file->dimension(), 1);
  std::vector<double> block(step * file->dimension());
  skip_rows(*file, choice, block);
  const std::uint64_t total = rows_to_come(*file, choice);
  vector_writer writer(choice.output, format, file->element(), file->dimension(), total);
  std::atomic<std::uint64_t> done{0};
  const progress line("converting", total, [&] { return done.load(); });
  const std::uint64_t most = choice.rows == 0 ? ~std::uint64_t{0} : choice.rows;
  while (done < most) {
    stop_if_interrupted("interrupted; nothing was written");
    const std::size_t got = file->read(std::min<std::uint64_t>(step, most - done), block.data());
    if (got == 0) break;
    writer.write(block.data(), got);
    done += got;
  }
  writer.commit();
}

}  // namespace

verb add_convert(CLI::App& tool) {
  CLI::App* const command =
      tool.add_subcommand("convert", "Converts vectors from one file format to another");
  command->footer(
      "Reads fvecs, bvecs, ivecs, fbin, u8bin, npy, idx, text and HDF5 (FILE.hdf5:NAME for another "
      "data set than train), all but HDF5 also compressed with gzip; writes fvecs, bvecs, ivecs, "
      "fbin, u8bin, npy and text. Whole numbers stay whole in npy; a number that does not fit the "
      "new format ends the conversion. The output appears whole or not at all.");
  auto choice = std::make_shared<convert_choice>();
  command->option_defaults()->always_capture_default();
  command->add_option("input", choice->from.path, "File to read; - for standard input")
      ->required()
      ->type_name("IN");
  command->add_option("output", choice->output, "File to write; - for standard output")
      ->required()
      ->type_name("OUT");
  command
      ->add_option("--from", choice->from_format,
                   "Format of an input whose name does not tell, such as -")
      ->check(CLI::IsMember(format_names()));
  command->add_option("--to", choice->to_format, "Format of the output; auto: by its name")
      ->check(CLI::IsMember({"auto", "fvecs", "bvecs", "ivecs", "fbin", "u8bin", "npy", "text"}));
  command->add_option("--skip", choice->skip, "Leave out the first N rows")->type_name("N");
  command->add_option("--rows", choice->rows, "Take N rows at most (0: all)")->type_name("N");
  add_console_options(*command, choice->console);
  return {command,
          [choice] { run_convert(*choice); },
          {{"korvex convert train-images-idx3-ubyte.gz pictures.fvecs", "pictures as floats"},
           {"korvex convert sift.hdf5:neighbors truth.ivecs", "the answers of a collection"},
           {"korvex convert big.npy - --to fvecs --rows 1000 | gzip > small.fvecs.gz",
            "through a pipe"}}};
}

}  // namespace korvex::cli
