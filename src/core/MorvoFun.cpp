#include "MorvoFun.h"

#include <sstream>

#include "core/SystemClock.h"

namespace {
int matchhere(const char* regexp, const char* text);

// c* at the front of regexp: try every run length of c, shortest first.
int matchstar(int c, const char* regexp, const char* text) {
    for (;;) {
        if (matchhere(regexp, text)) return 1;
        if (*text == '\0') return 0;
        const char next = *text++;
        if (next != c && c != '.') return 0;
    }
}

int matchhere(const char* regexp, const char* text) {
    // Each step consumes a pattern or text character, so the depth is bounded
    // by their lengths.
    if (regexp[0] == '\0') return 1;
    if (regexp[1] == '*') return matchstar(regexp[0], regexp + 2, text);
    if (regexp[0] == '$' && regexp[1] == '\0') return *text == '\0';
    if (*text != '\0' && (regexp[0] == '.' || regexp[0] == *text)) return matchhere(regexp + 1, text + 1);
    return 0;
}
}  // namespace

namespace MorvoFun {
int DDS_msleep(int iMilliseconds) {
    SystemClock::SleepMs(iMilliseconds < 0 ? 0 : iMilliseconds);
    return 0;
}

int LocalEndianness() {
    const int iOne = 1;
    return *reinterpret_cast<const unsigned char*>(&iOne);
}

int match(char* regexp, char* text) {
    // A null pointer reads as an empty string.
    const char* pPattern = regexp != nullptr ? regexp : "";
    const char* pText = text != nullptr ? text : "";
    if (pPattern[0] == '^') return matchhere(pPattern + 1, pText);
    do {
        if (matchhere(pPattern, pText)) return 1;
    } while (*pText++ != '\0');
    return 0;
}

std::string IntToString(int iValue) {
    std::stringstream stream;
    stream << iValue;
    return stream.str();
}

int StringToInt(std::string strValue) {
    std::stringstream stream(strValue);
    int iValue = 0;
    stream >> iValue;
    return iValue;
}

unsigned int StringToUnsigned(std::string strValue) {
    std::stringstream stream(strValue);
    unsigned int uiValue = 0;
    if (!(stream >> uiValue)) return 0xFFFFFFFF;
    return uiValue;
}

std::vector<std::string> StringSplit(std::string strValue, char separator, int iMaxParts) {
    std::vector<std::string> parts;
    if (strValue.empty()) return parts;
    size_t start = 0;
    int iCuts = 0;
    while (iCuts < iMaxParts - 1) {
        const size_t found = strValue.find(separator, start + 1);
        if (found == std::string::npos) break;
        parts.push_back(strValue.substr(start, found - start));
        start = found;
        ++iCuts;
    }
    parts.push_back(strValue.substr(start));
    return parts;
}
}  // namespace MorvoFun
