// Small helpers shared by the library and applications: sleeping, host byte
// order, a tiny pattern matcher and string conversions. Free to call from any
// thread; no state, no lock.
#pragma once

#include <string>
#include <vector>

namespace MorvoFun {
// Sleeps iMilliseconds (a negative value sleeps 0). Returns 0.
int DDS_msleep(int iMilliseconds);

// First octet of an int holding 1: 1 on a little-endian host, 0 on a big-endian one.
int LocalEndianness();

// Searches text for regexp: '^' anchors at the start, '$' (last) at the end,
// '.' is any character, 'c*' any run of c. Everything else, '+', '?', '[' and
// '\' included, stands for itself. Returns 1 on a match, else 0.
int match(char* regexp, char* text);

std::string IntToString(int iValue);
// 0 when nothing parses.
int StringToInt(std::string strValue);
// 0xFFFFFFFF when nothing parses.
unsigned int StringToUnsigned(std::string strValue);

// Cuts strValue at each separator found from offset 1 on, at most
// iMaxParts - 1 times (iMaxParts below 2: no cut). Every part but the first
// starts with its separator. An empty string gives no parts.
std::vector<std::string> StringSplit(std::string strValue, char separator, int iMaxParts);
}  // namespace MorvoFun
