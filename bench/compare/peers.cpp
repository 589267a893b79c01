#include <algorithm>
#include <iterator>

#include "adapter.h"

namespace korvex::compare {

namespace {

constexpr peer all_peers[] = {
    {"korvex", make_korvex_direct, nullptr, true},
    {"korvex-contract", make_korvex_contract, nullptr, true},
#ifdef KORVEX_COMPARE_HNSWLIB
    {"hnswlib", make_hnswlib, nullptr},
#else
    {"hnswlib", nullptr,
     "hnswlib/hnswlib.h was not found when this program was configured (Debian: libhnswlib-dev)"},
#endif
#ifdef KORVEX_COMPARE_FAISS
    {"faiss", make_faiss, nullptr, true},
#else
    {"faiss", nullptr,
     "faiss, or OpenMP, was not found when this program was configured (Debian: libfaiss-dev)"},
#endif
};

}  // namespace

std::span<const peer> peers() {
  return all_peers;
}

const peer* find_peer(const std::string& name) {
  const auto found = std::find_if(std::begin(all_peers), std::end(all_peers),
                                  [&](const peer& candidate) { return name == candidate.name; });
  return found == std::end(all_peers) ? nullptr : found;
}

}  // namespace korvex::compare
