// A set of 32-bit fragment numbers kept as disjoint ranges, so that adding a
// long run of numbers or taking one out costs O(log n) whatever the numbers.
// A plain value without a lock; its owner (a reassembly store) is touched on
// the process thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

class FragmentRanges {
public:
    // Adds uiFirst..uiLast (nothing when uiLast < uiFirst), merging it with
    // the ranges it touches.
    void insert(uint32_t uiFirst, uint32_t uiLast);
    void insert(uint32_t uiNumber) { insert(uiNumber, uiNumber); }
    // Takes one number out, splitting its range when it lies inside.
    void erase(uint32_t uiNumber);
    // Whether erase(uiNumber) would add a range.
    bool splits(uint32_t uiNumber) const;

    bool empty() const { return m_Ranges.empty(); }
    size_t rangeCount() const { return m_Ranges.size(); }
    // First number of each range to its last, ascending.
    const std::map<uint32_t, uint32_t>& ranges() const { return m_Ranges; }

private:
    std::map<uint32_t, uint32_t> m_Ranges;
};
