// Nearest-name suggestions for a mistyped subcommand.
#include "command_names.h"

#include <algorithm>

namespace marquel::ctl {

size_t EditDistance(const std::string& a, const std::string& b) {
  // Words longer than this are not meant to be a command name; no table is built for them.
  constexpr size_t kLongest = 64;
  if (a.size() > kLongest || b.size() > kLongest) return std::max(a.size(), b.size());
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

std::string NearestName(const std::string& word, const std::vector<std::string>& names) {
  std::string best;
  size_t best_distance = 0;
  for (const std::string& name : names) {
    const size_t distance = EditDistance(word, name);
    if (best.empty() || distance < best_distance) {
      best = name;
      best_distance = distance;
    }
  }
  // A third of the word may be wrong, at least one letter.
  const size_t allowed = std::max<size_t>(1, word.size() / 3);
  return best_distance <= allowed ? best : "";
}

}  // namespace marquel::ctl
