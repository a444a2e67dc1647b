// Names that forgive typos: a method or record name is taken as given, else
// case-insensitively when only one name matches that way; an unknown name
// gets the closest known names ("did you mean SetLineCallState?"). The
// Python package (python/corvane/_names.py) applies the same rule.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace cvi {

// Edits (insert, delete, replace, swap two neighbours) from a to b.
size_t editDistance(const std::string& a, const std::string& b);

// The name meant: exact, else the only case-insensitive match.
std::optional<std::string> resolveName(const std::string& given,
                                       const std::vector<std::string>& names);

// Up to `limit` names closest to `given`: those fewest edits away (at most a
// third of its length, and at least 2), else those that contain it.
std::vector<std::string> closestNames(const std::string& given,
                                      const std::vector<std::string>& names, size_t limit = 3);

// "did you mean A?", "did you mean A or B?", or "" when nothing is close.
std::string didYouMean(const std::string& given, const std::vector<std::string>& names);

}  // namespace cvi
