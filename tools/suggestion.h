// Guesses at what somebody meant who wrote something else.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tesk::tool {

/// Number of characters to insert, to delete or to replace, or of neighbours to
/// swap, that make one word another.
std::size_t edit_distance(std::string_view a, std::string_view b);

/// The one of some known words that an unknown one is likely to stand for: the
/// only one that it begins, or else the nearest one, at most two edits away.
///
/// @return  empty where there is none, or several are as near; a word that
///          shares no character with the unknown one is never taken
std::string suggestion_for(std::string_view word, std::vector<std::string> const& known);

/// The end of a message: ": did you mean X?"; empty without a suggestion.
std::string did_you_mean(std::string_view word, std::vector<std::string> const& known);

}  // namespace tesk::tool
