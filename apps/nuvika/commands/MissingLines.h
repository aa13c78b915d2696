// Which lines are missing: one look at each, whatever the lines are.
#pragma once

#include <QtCore/QHash>

#include <cstddef>
#include <vector>

// The places in `given` of the lines that `kept` lacks; a line counts as often as it stands there.
template <class Line>
std::vector<std::size_t> missingLines(const std::vector<Line>& given, const std::vector<Line>& kept)
{
    QHash<Line, int> rest; // how often each line was kept
    for (const Line& line : kept)
        ++rest[line];
    std::vector<std::size_t> missing;
    for (std::size_t i = 0; i < given.size(); ++i) {
        const auto found = rest.find(given[i]);
        if (found == rest.end() || found.value() == 0)
            missing.push_back(i);
        else
            --found.value();
    }
    return missing;
}
