// What the two-process test and its peer agree on: the content of sample i,
// its check on arrival, and the lines the peer reports. Header-only; no lock.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace two_process {

// Lines on the pipes, each followed by its argument.
const char* const kLine = "LINE ";      // a ManualMatch line
const char* const kReady = "READY";     // the peer's reader is connected
const char* const kSample = "SAMPLE ";  // "<index> <length> <first bad offset or -1>"
const char* const kFail = "FAIL ";      // the peer could not set up; the reason follows
const char* const kQuit = "QUIT";       // the peer may end

// A byte that depends on sample and offset, so that a fragment in the wrong
// place, a stretch of zeros or another sample's bytes all show.
inline uint8_t PatternByte(uint32_t uiIndex, uint32_t uiOffset) {
    const uint32_t uiMix = uiOffset * 2654435761u + (uiIndex + 1) * 40503u;
    return uint8_t((uiMix >> 24) ^ (uiMix >> 11));
}

// Sample uiIndex of uiLength octets (at least 8): its index and length, then the pattern.
inline std::vector<char> MakeSample(uint32_t uiIndex, uint32_t uiLength) {
    std::vector<char> sample(uiLength);
    for (uint32_t i = 8; i < uiLength; ++i) sample[i] = char(PatternByte(uiIndex, i));
    std::memcpy(sample.data(), &uiIndex, 4);
    std::memcpy(sample.data() + 4, &uiLength, 4);
    return sample;
}

// Reads the index a sample claims and returns the first offset that differs
// from what MakeSample made for that index and length, or -1 when none does.
inline int64_t CheckSample(const uint8_t* pData, uint32_t uiLength, uint32_t* pIndex) {
    *pIndex = UINT32_MAX;
    if (pData == nullptr || uiLength < 8) return 0;
    uint32_t uiClaimedLength = 0;
    std::memcpy(pIndex, pData, 4);
    std::memcpy(&uiClaimedLength, pData + 4, 4);
    if (uiClaimedLength != uiLength) return 4;
    for (uint32_t i = 8; i < uiLength; ++i)
        if (pData[i] != PatternByte(*pIndex, i)) return i;
    return -1;
}

struct Report {
    uint32_t index = 0;
    uint32_t length = 0;
    long long firstBad = 0;
};

inline std::string FormatReport(const Report& report) {
    char sz[80];
    std::snprintf(sz, sizeof(sz), "%u %u %lld", report.index, report.length, report.firstBad);
    return sz;
}

inline bool ParseReport(const std::string& strText, Report* pOut) {
    return std::sscanf(strText.c_str(), "%u %u %lld", &pOut->index, &pOut->length, &pOut->firstBad) == 3;
}

}  // namespace two_process
