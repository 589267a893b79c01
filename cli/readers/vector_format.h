#ifndef KORVEX_CLI_READERS_VECTOR_FORMAT_H
#define KORVEX_CLI_READERS_VECTOR_FORMAT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace korvex::cli {

// How a file stores its vectors.
enum class vector_format { unknown, fvecs, bvecs, ivecs, fbin, u8bin, npy, idx, text, hdf5 };

enum class element_type { u8, i8, u16, i16, u32, i32, u64, i64, f32, f64 };

std::size_t element_bytes(element_type type);
bool is_whole(element_type type);

// The format of a name such as "npy" or "hdf5"; unknown for "auto" and for other words.
vector_format format_named(std::string_view name);
const char* name_of(vector_format format);
// The names that --format takes, "auto" in front.
std::vector<std::string> format_names();
// By the ending (.gz left out of account); unknown when it tells nothing.
vector_format format_of_path(std::string_view path);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_READERS_VECTOR_FORMAT_H
