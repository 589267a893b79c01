#ifndef KORVEX_CLI_READERS_HDF5_H
#define KORVEX_CLI_READERS_HDF5_H

#include <memory>
#include <string>

#include "cli/readers/vector_file.h"

namespace korvex::cli {

// A data set of two axes in an HDF5 file, as the collections of ann-benchmarks hold them: train,
// test, neighbors, distances. Throws file_error, also when the tool was built without HDF5.
std::unique_ptr<vector_file> open_hdf5_file(const std::string& path, const std::string& dataset);

// The text that an HDF5 file as a whole is given under this name, as the "distance" of ann-benchmarks; empty when
// there is none, or anything but one text.
std::string read_hdf5_text(const std::string& path, const std::string& name);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_READERS_HDF5_H
