// CDR stream: cursor arithmetic, growth, and the value families.
#include "CDR.h"

#include <cstdint>
#include <cstring>
#include <new>

namespace {

const unsigned long long kGrowStep = 4096;

// Aligns an offset counted from the buffer start; width is a power of two.
unsigned long long AlignUp(unsigned long long offset, unsigned long long width) {
    return (offset + width - 1) & ~(width - 1);
}

}  // namespace

CDR::CDR() : CDR(nullptr, 0, 1, 0) {}

CDR::CDR(unsigned char* buffer, unsigned int size, int byte_order, int reserved_value)
    : m_pCursor(buffer),
      m_Remaining(size),
      m_pOwnedBuffer(buffer),
      m_ReservedInt(reserved_value),
      m_pBase(buffer),
      m_Capacity(size),
      m_ByteSwap(byte_order != 1 ? 1 : 0),
      m_pEnd(buffer != nullptr ? buffer + size : nullptr) {}

// Frees nothing: the caller owns what GetBufferPtr() gives (see the header).
CDR::~CDR() {}

unsigned long long CDR::BytesRemaining() const {
    return m_Remaining;
}

unsigned char* CDR::GetBufferPtr() const {
    return m_pBase;
}

unsigned long long CDR::GetBufferLen() const {
    return m_Capacity;
}

unsigned long long CDR::GetContentLen() const {
    return OffsetOf(m_pCursor);
}

unsigned char CDR::SetContentLen(unsigned long long size) {
    m_Remaining = size;
    return 1;
}

unsigned char CDR::ResetBuffer() {
    m_pCursor = m_pBase;
    m_Remaining = m_Capacity;
    m_pEnd = m_pBase != nullptr ? m_pBase + m_Capacity : nullptr;
    return 1;
}

unsigned char CDR::SetByteSwap(int swap) {
    m_ByteSwap = swap;
    return 1;
}

unsigned char CDR::SetupEncapsulation(unsigned char* data, unsigned int length) {
    // data[0] is the byte-order octet, so an empty block has nothing to read.
    if (data == nullptr || length == 0) {
        return 0;
    }
    m_pCursor = data + 1;
    m_Remaining = length - 1;
    m_pEnd = data + length;
    m_ByteSwap = data[0] != 1 ? 1 : 0;
    m_ReservedInt = 0;
    return 1;
}

unsigned char CDR::Grow(unsigned long long size) {
    unsigned long long ullNew;
    if (size == 0) {
        ullNew = m_Capacity < kGrowStep ? m_Capacity + kGrowStep : m_Capacity * 2;
    } else {
        if (size <= m_Capacity) {
            return 1;
        }
        ullNew = size - m_Capacity < kGrowStep ? m_Capacity + kGrowStep : size;
    }

    // The used octets are those between base and cursor; a cursor that
    // SetupEncapsulation moved into another block has none to carry over.
    unsigned long long ullUsed = OffsetOf(m_pCursor);
    if (m_pCursor != m_pBase && (m_pBase == nullptr || ullUsed > m_Capacity)) {
        return 0;
    }

    // Zeroed so that padding never carries stale heap contents onto the wire.
    unsigned char* pNew = new (std::nothrow) unsigned char[ullNew]();
    if (pNew == nullptr) {
        return 0;
    }
    if (ullUsed != 0) {
        std::memcpy(pNew, m_pBase, ullUsed);
    }
    unsigned char* pOld = m_pOwnedBuffer;
    m_pBase = pNew;
    m_pOwnedBuffer = pNew;
    m_Capacity = ullNew;
    m_Remaining = ullNew - ullUsed;
    m_pCursor = pNew + ullUsed;
    m_pEnd = pNew + ullNew;
    delete[] pOld;
    return 1;
}

unsigned long long CDR::Available() const {
    if (m_pCursor == nullptr || m_pEnd == nullptr) {
        return 0;
    }
    unsigned long long ullReal = static_cast<unsigned long long>(m_pEnd - m_pCursor);
    return m_Remaining < ullReal ? m_Remaining : ullReal;
}

unsigned long long CDR::OffsetOf(const unsigned char* p) const {
    // Integer arithmetic: after SetupEncapsulation the cursor may lie in a
    // block other than the base one, and alignment still counts from base.
    return static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p) -
                                           reinterpret_cast<std::uintptr_t>(m_pBase));
}

unsigned long long CDR::StepFor(unsigned long long width) const {
    unsigned long long ullOffset = OffsetOf(m_pCursor);
    return AlignUp(ullOffset, width) - ullOffset + width;
}

unsigned char* CDR::Claim(unsigned long long width, bool grow) {
    unsigned long long ullStep = StepFor(width);
    if (ullStep > Available()) {
        // One growth adds at least 4096 octets, more than any single value.
        if (!grow || Grow(0) == 0 || ullStep > Available()) {
            return nullptr;
        }
    }
    unsigned char* pSlot = m_pCursor + (ullStep - width);
    m_Remaining -= ullStep;
    m_pCursor += ullStep;
    return pSlot;
}

unsigned char CDR::Read(void* target, unsigned long long width) {
    const unsigned char* pSlot = Claim(width, false);
    if (pSlot == nullptr) {
        return 0;
    }
    unsigned char* pTarget = static_cast<unsigned char*>(target);
    if (m_ByteSwap != 0) {
        for (unsigned long long i = 0; i < width; ++i) {
            pTarget[i] = pSlot[width - 1 - i];
        }
    } else {
        std::memcpy(pTarget, pSlot, width);
    }
    return 1;
}

unsigned char CDR::Write(const void* source, unsigned long long width) {
    unsigned char* pSlot = Claim(width, true);
    if (pSlot == nullptr) {
        return 0;
    }
    std::memcpy(pSlot, source, width);
    return 1;
}

unsigned char CDR::ReserveOctets(unsigned long long n) {
    if (n <= Available()) {
        return 1;
    }
    // Room for the used octets plus n. The first term is the usual request;
    // the second covers a remaining that SetContentLen set past the buffer.
    unsigned long long ullWant = (m_Remaining <= m_Capacity ? m_Capacity - m_Remaining : 0) + n;
    unsigned long long ullUsedPlus = OffsetOf(m_pCursor) + n;
    if (ullUsedPlus > ullWant) {
        ullWant = ullUsedPlus;
    }
    return Grow(ullWant) != 0 && n <= Available() ? 1 : 0;
}

unsigned char CDR::GetByte(unsigned char& v) {
    return Read(&v, 1);
}
unsigned char CDR::PutByte(unsigned char v) {
    return Write(&v, 1);
}
unsigned char CDR::GetChar(char& v) {
    return Read(&v, 1);
}
unsigned char CDR::PutChar(char v) {
    return Write(&v, 1);
}
unsigned char CDR::GetOctet(unsigned char& v) {
    return Read(&v, 1);
}
unsigned char CDR::PutOctet(unsigned char v) {
    return Write(&v, 1);
}

unsigned char CDR::GetBoolean(bool& v) {
    unsigned char uc = 0;
    if (Read(&uc, 1) == 0) {
        return 0;
    }
    v = uc == 1;
    return 1;
}

unsigned char CDR::PutBoolean(bool v) {
    unsigned char uc = v ? 1 : 0;
    return Write(&uc, 1);
}

unsigned char CDR::GetShort(short& v) {
    return Read(&v, 2);
}
unsigned char CDR::PutShort(short v) {
    return Write(&v, 2);
}
unsigned char CDR::GetUShort(unsigned short& v) {
    return Read(&v, 2);
}
unsigned char CDR::PutUShort(unsigned short v) {
    return Write(&v, 2);
}

unsigned char CDR::GetWChar(wchar_t& v) {
    unsigned short us = 0;
    if (Read(&us, 2) == 0) {
        return 0;
    }
    v = static_cast<wchar_t>(us);
    return 1;
}

unsigned char CDR::PutWChar(wchar_t v) {
    unsigned short us = static_cast<unsigned short>(v);
    return Write(&us, 2);
}

unsigned char CDR::GetLong(int& v) {
    return Read(&v, 4);
}
unsigned char CDR::PutLong(int v) {
    return Write(&v, 4);
}
unsigned char CDR::GetULong(unsigned int& v) {
    return Read(&v, 4);
}
unsigned char CDR::PutULong(unsigned int v) {
    return Write(&v, 4);
}
unsigned char CDR::GetFloat(float& v) {
    return Read(&v, 4);
}
unsigned char CDR::PutFloat(float v) {
    return Write(&v, 4);
}

unsigned char CDR::GetLongLong(long long& v) {
    return Read(&v, 8);
}
unsigned char CDR::PutLongLong(long long v) {
    return Write(&v, 8);
}
unsigned char CDR::GetULongLong(unsigned long long& v) {
    return Read(&v, 8);
}
unsigned char CDR::PutULongLong(unsigned long long v) {
    return Write(&v, 8);
}
unsigned char CDR::GetDouble(double& v) {
    return Read(&v, 8);
}
unsigned char CDR::PutDouble(double v) {
    return Write(&v, 8);
}

// The slot was laid out where long double is a 64-bit double: the value is the
// first 8 octets of the 16, and a swapped read reverses all 16 and keeps the
// first 8 of the result. Going through a double keeps the wire octets the same
// and never writes more than the host's long double holds, whatever its width.
unsigned char CDR::GetLongDouble(long double& v) {
    const unsigned char* pSlot = Claim(16, false);
    if (pSlot == nullptr) {
        return 0;
    }
    unsigned char aucValue[sizeof(double)];
    for (unsigned int i = 0; i < sizeof(double); ++i) {
        aucValue[i] = m_ByteSwap != 0 ? pSlot[15 - i] : pSlot[i];
    }
    double d = 0;
    std::memcpy(&d, aucValue, sizeof(double));
    v = d;
    return 1;
}

unsigned char CDR::PutLongDouble(long double v) {
    unsigned char* pSlot = Claim(16, true);
    if (pSlot == nullptr) {
        return 0;
    }
    double d = static_cast<double>(v);
    std::memcpy(pSlot, &d, sizeof(double));
    return 1;
}

unsigned char CDR::GetByteStr(unsigned char* dest, unsigned short n) {
    if (n > Available() || (n != 0 && dest == nullptr)) {
        return 0;
    }
    if (n != 0) {
        std::memcpy(dest, m_pCursor, n);
        m_pCursor += n;
        m_Remaining -= n;
    }
    return 1;
}

unsigned char CDR::PutByteStr(unsigned char* src, unsigned short n) {
    if (n == 0) {
        return 1;
    }
    if (src == nullptr || ReserveOctets(n) == 0) {
        return 0;
    }
    std::memcpy(m_pCursor, src, n);
    m_pCursor += n;
    m_Remaining -= n;
    return 1;
}

unsigned char CDR::PutString(const char* str) {
    if (str == nullptr) {
        return PutULong(1) != 0 && PutOctet(0) != 0 ? 1 : 0;
    }
    std::size_t uiLen = std::strlen(str) + 1;
    if (PutULong(static_cast<unsigned int>(uiLen)) == 0 || ReserveOctets(uiLen) == 0) {
        return 0;
    }
    std::memcpy(m_pCursor, str, uiLen);
    m_pCursor += uiLen;
    m_Remaining -= uiLen;
    return 1;
}

unsigned char CDR::GetString(char*& dest) {
    unsigned int uiLen = 0;
    if (GetULong(uiLen) == 0 || uiLen > Available()) {
        return 0;
    }
    // One octet more than the length, always zero: a string that arrives
    // without its terminator still ends inside the block.
    char* pStr = new (std::nothrow) char[static_cast<std::size_t>(uiLen) + 1];
    if (pStr == nullptr) {
        return 0;
    }
    std::memcpy(pStr, m_pCursor, uiLen);
    pStr[uiLen] = '\0';
    m_pCursor += uiLen;
    m_Remaining -= uiLen;
    dest = pStr;
    return 1;
}

unsigned char CDR::SkipString() {
    unsigned int uiLen = 0;
    if (GetULong(uiLen) == 0 || uiLen > Available()) {
        return 0;
    }
    m_pCursor += uiLen;
    m_Remaining -= uiLen;
    return 1;
}

unsigned char CDR::Skip(short n) {
    if (n < 0) {
        return 0;
    }
    if (n == 0) {
        return 1;
    }
    return Claim(static_cast<unsigned long long>(n), false) != nullptr ? 1 : 0;
}

unsigned char CDR::SkipBytes(unsigned int n) {
    if (n > Available()) {
        return 0;
    }
    m_pCursor += n;
    m_Remaining -= n;
    return 1;
}
