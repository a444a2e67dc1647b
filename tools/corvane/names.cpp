#include "names.h"

#include <algorithm>
#include <cctype>

namespace cvi {
namespace {

std::string folded(const std::string& s) {
    std::string out = s;
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

}  // namespace

size_t editDistance(const std::string& a, const std::string& b) {
    // Three rows of the table: i - 2, i - 1 and i.
    std::vector<size_t> before(b.size() + 1), prev(b.size() + 1), cur(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) prev[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        cur[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            cur[j] = std::min({prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                cur[j] = std::min(cur[j], before[j - 2] + 1);
        }
        before.swap(prev);
        prev.swap(cur);
    }
    return prev[b.size()];
}

std::optional<std::string> resolveName(const std::string& given,
                                       const std::vector<std::string>& names) {
    if (std::find(names.begin(), names.end(), given) != names.end()) return given;
    std::optional<std::string> found;
    for (const std::string& n : names) {
        if (folded(n) != folded(given)) continue;
        if (found) return std::nullopt;  // ambiguous
        found = n;
    }
    return found;
}

std::vector<std::string> closestNames(const std::string& given,
                                      const std::vector<std::string>& names, size_t limit) {
    const std::string g = folded(given);
    const size_t reach = std::max<size_t>(2, g.size() / 3);
    std::vector<std::pair<size_t, std::string>> scored;
    for (const std::string& n : names) scored.emplace_back(editDistance(g, folded(n)), n);
    std::sort(scored.begin(), scored.end());
    std::vector<std::string> out;
    for (const auto& [d, n] : scored)
        if (d <= reach && d == scored.front().first) out.push_back(n);
    if (out.empty() && g.size() >= 4) {
        for (const auto& [d, n] : scored)
            if (folded(n).find(g) != std::string::npos) out.push_back(n);
        std::sort(out.begin(), out.end());
    }
    if (out.size() > limit) out.resize(limit);
    return out;
}

std::string didYouMean(const std::string& given, const std::vector<std::string>& names) {
    const std::vector<std::string> found = closestNames(given, names);
    if (found.empty()) return "";
    std::string out = "did you mean " + found.front();
    for (size_t i = 1; i < found.size(); ++i) out += (i + 1 == found.size() ? " or " : ", ") + found[i];
    return out + "?";
}

}  // namespace cvi
