// Finding the subcommand a mistyped word was meant to be.
#pragma once

#include <string>
#include <vector>

namespace marquel::ctl {

// The edit distance (insertions, deletions, substitutions, swaps of neighbours) of a and b.
size_t EditDistance(const std::string& a, const std::string& b);

// The name in `names` closest to `word`, or "" when none is close enough to be meant.
std::string NearestName(const std::string& word, const std::vector<std::string>& names);

}  // namespace marquel::ctl
