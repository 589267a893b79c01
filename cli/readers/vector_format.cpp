#include "cli/readers/vector_format.h"

#include <utility>

namespace korvex::cli {

namespace {

constexpr std::pair<vector_format, const char*> names[] = {
    {vector_format::unknown, "auto"}, {vector_format::fvecs, "fvecs"},
    {vector_format::bvecs, "bvecs"},  {vector_format::ivecs, "ivecs"},
    {vector_format::fbin, "fbin"},    {vector_format::u8bin, "u8bin"},
    {vector_format::npy, "npy"},      {vector_format::idx, "idx"},
    {vector_format::text, "text"},    {vector_format::hdf5, "hdf5"}};

constexpr std::pair<const char*, vector_format> endings[] = {
    {".fvecs", vector_format::fvecs}, {".bvecs", vector_format::bvecs},
    {".ivecs", vector_format::ivecs}, {".fbin", vector_format::fbin},
    {".u8bin", vector_format::u8bin}, {".npy", vector_format::npy},
    {".idx", vector_format::idx},     {".txt", vector_format::text},
    {".csv", vector_format::text},    {".tsv", vector_format::text},
    {".hdf5", vector_format::hdf5},   {".h5", vector_format::hdf5}};

}  // namespace

bool is_whole(element_type type) {
  return type != element_type::f32 && type != element_type::f64;
}

vector_format format_named(std::string_view name) {
  for (const auto& [format, word] : names)
    if (name == word) return format;
  return vector_format::unknown;
}

const char* name_of(vector_format format) {
  for (const auto& [each, word] : names)
    if (each == format) return word;
  return "";
}

std::vector<std::string> format_names() {
  std::vector<std::string> all;
  for (const auto& [format, word] : names) {
#ifndef KORVEX_HAVE_HDF5
    if (format == vector_format::hdf5) continue;
#endif
    all.emplace_back(word);
  }
  return all;
}

vector_format format_of_path(std::string_view path) {
  if (path.ends_with(".gz")) path.remove_suffix(3);
  for (const auto& [ending, format] : endings)
    if (path.ends_with(ending)) return format;
  return vector_format::unknown;
}

}  // namespace korvex::cli
