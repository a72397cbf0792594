#include "rtps/FragmentRanges.h"

#include <algorithm>
#include <iterator>

void FragmentRanges::insert(uint32_t uiFirst, uint32_t uiLast) {
    if (uiLast < uiFirst) return;
    // 64-bit bounds, so that one past 2^32-1 does not wrap to 0.
    uint64_t ulFirst = uiFirst;
    uint64_t ulLast = uiLast;
    auto it = m_Ranges.upper_bound(uiFirst);
    if (it != m_Ranges.begin() && uint64_t(std::prev(it)->second) + 1 >= ulFirst) --it;
    // Every range swallowed here was made by an earlier insert: amortised O(log n).
    while (it != m_Ranges.end() && uint64_t(it->first) <= ulLast + 1) {
        ulFirst = std::min<uint64_t>(ulFirst, it->first);
        ulLast = std::max<uint64_t>(ulLast, it->second);
        it = m_Ranges.erase(it);
    }
    m_Ranges.emplace_hint(it, uint32_t(ulFirst), uint32_t(ulLast));
}

void FragmentRanges::erase(uint32_t uiNumber) {
    auto it = m_Ranges.upper_bound(uiNumber);
    if (it == m_Ranges.begin()) return;
    --it;
    const uint32_t uiFirst = it->first;
    const uint32_t uiLast = it->second;
    if (uiLast < uiNumber) return;
    if (uiNumber == uiLast) {
        if (uiFirst == uiLast)
            m_Ranges.erase(it);
        else
            it->second = uiLast - 1;
        return;
    }
    const auto next = uiNumber == uiFirst ? m_Ranges.erase(it) : std::next(it);
    if (uiNumber != uiFirst) it->second = uiNumber - 1;
    m_Ranges.emplace_hint(next, uiNumber + 1, uiLast);
}

bool FragmentRanges::splits(uint32_t uiNumber) const {
    auto it = m_Ranges.upper_bound(uiNumber);
    if (it == m_Ranges.begin()) return false;
    --it;
    return it->first < uiNumber && uiNumber < it->second;
}
