// Shared by the publisher and subscriber examples: the sample type with its CDR
// form, and the exchange of connection lines through files in a directory that
// both processes are given. Until discovery exists, the two connect by hand.
// Single-threaded use; no locks.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "CDR.h"

namespace example {

const int kDomain = 1;
const char* const kTopic = "Greetings";
const char* const kType = "Greeting";
const int kSampleCount = 10;
const int kWaitMs = 10000;

struct Greeting {
    int counter = 0;
    std::string text;
    double value = 0;
};

// Encapsulation header (little-endian CDR), then the members in order, copied
// into *pOut. False when the stream could not take them.
inline bool Serialise(const Greeting& sample, std::string* pOut) {
    // From new[]: a stream that grows delete[]s the buffer it was given.
    CDR stream(new unsigned char[64](), 64, 1, 0);
    const unsigned char header[4] = {0x00, 0x01, 0x00, 0x00};
    bool bOk = true;
    for (unsigned char octet : header) bOk = bOk && stream.PutOctet(octet);
    bOk = bOk && stream.PutLong(sample.counter) && stream.PutString(sample.text.c_str()) &&
          stream.PutDouble(sample.value);
    if (bOk)
        pOut->assign(reinterpret_cast<const char*>(stream.GetBufferPtr()), size_t(stream.GetContentLen()));
    // Whichever buffer the stream holds now is ours to free.
    delete[] stream.GetBufferPtr();
    return bOk;
}

inline bool Deserialise(unsigned char* pData, unsigned int uiLength, Greeting* pOut) {
    CDR stream(pData, uiLength, 1, 0);
    char* szText = nullptr;
    if (!stream.SkipBytes(4) || !stream.GetLong(pOut->counter) || !stream.GetString(szText)) return false;
    pOut->text = szText;
    delete[] szText;
    return stream.GetDouble(pOut->value) != 0;
}

// Writes DIR/NAME whole: a reader never sees half a line.
inline bool PutFile(const std::string& strDir, const std::string& strName, const std::string& strText) {
    const std::string strPath = strDir + "/" + strName;
    {
        std::ofstream out(strPath + ".tmp");
        out << strText << "\n";
        if (!out) return false;
    }
    return std::rename((strPath + ".tmp").c_str(), strPath.c_str()) == 0;
}

// The first line of DIR/NAME, once the file exists; false after kWaitMs.
inline bool AwaitFile(const std::string& strDir, const std::string& strName, std::string* pLine) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream in(strDir + "/" + strName);
        if (in && std::getline(in, *pLine)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace example
