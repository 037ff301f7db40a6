#include "tools/suggestion.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace tesk::tool {

namespace {

constexpr std::size_t MAX_EDITS = 2;

// The only word that begins with `word`; empty where there is none or several.
std::string only_one_begun_by(std::string_view word, std::vector<std::string> const& known) {
    std::string found;
    for (std::string const& candidate : known) {
        if (word.empty() || candidate.compare(0, word.size(), word) != 0) continue;
        if (!found.empty()) return "";
        found = candidate;
    }
    return found;
}

std::size_t difference(std::size_t a, std::size_t b) { return a > b ? a - b : b - a; }

}  // namespace

// Three rows of the usual table: the present one and the two above it.
std::size_t edit_distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> before_last(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::swap(before_last, last);
        std::swap(last, row);
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t const replaced = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
            bool const swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (swapped) row[j] = std::min(row[j], before_last[j - 2] + 1);
        }
    }
    return row[b.size()];
}

std::string suggestion_for(std::string_view word, std::vector<std::string> const& known) {
    std::string found = only_one_begun_by(word, known);
    if (!found.empty()) return found;
    std::size_t nearest = MAX_EDITS + 1;
    for (std::string const& candidate : known) {
        if (difference(candidate.size(), word.size()) > MAX_EDITS) continue;
        std::size_t const distance = edit_distance(word, candidate);
        if (distance > nearest || distance >= std::max(word.size(), candidate.size())) continue;
        // Several that are as near are none.
        found = distance == nearest ? "" : candidate;
        nearest = distance;
    }
    return nearest <= MAX_EDITS ? found : "";
}

std::string did_you_mean(std::string_view word, std::vector<std::string> const& known) {
    std::string const suggestion = suggestion_for(word, known);
    return suggestion.empty() ? "" : ": did you mean " + suggestion + "?";
}

}  // namespace tesk::tool
