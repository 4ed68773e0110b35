#include "operator/command_names.h"

#include <algorithm>

namespace {

constexpr std::size_t SLIPS_MAX = 2;
constexpr std::size_t WORD_MAX = 32; // a longer one is near to nothing

using Table = std::vector<std::vector<std::size_t>>;

// Slips between the first i letters of one and the first j of the other, from those of less.
std::size_t slipsAt(const Table &slips, std::string_view a, std::string_view b, std::size_t i,
                    std::size_t j)
{
    if (i == 0 || j == 0) return i + j;
    const std::size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
    std::size_t least =
        std::min({slips[i - 1][j] + 1, slips[i][j - 1] + 1, slips[i - 1][j - 1] + change});
    if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        least = std::min(least, slips[i - 2][j - 2] + 1);
    return least;
}

std::size_t slipsBetween(std::string_view a, std::string_view b)
{
    Table slips(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i)
        for (std::size_t j = 0; j <= b.size(); ++j)
            slips[i][j] = slipsAt(slips, a, b, i, j);
    return slips[a.size()][b.size()];
}

} // namespace

std::string nearestName(std::string_view word, const std::vector<std::string> &names)
{
    if (word.empty() || word.size() > WORD_MAX) return "";
    std::string nearest;
    std::size_t least = SLIPS_MAX + 1;
    for (const std::string &name : names) {
        const std::size_t slips = name.starts_with(word) ? 0 : slipsBetween(word, name);
        if (slips >= least) continue;
        least = slips;
        nearest = name;
    }
    return nearest;
}
