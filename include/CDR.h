// CDR: reads and writes Common Data Representation over one buffer, with a
// cursor aligned from the buffer start, growth on write and byte swap on read.
// A stream belongs to one thread at a time; it takes no lock.
#ifndef MORVODDS_CDR_H
#define MORVODDS_CDR_H

// Ownership of memory (the allocator is new[] / delete[] throughout):
// - A buffer handed to the constructor stays the caller's until the stream
//   grows; growth then delete[]s it. Pass a buffer that is large enough or one
//   allocated with new unsigned char[].
// - The destructor frees nothing. A buffer the stream grew is handed over
//   through GetBufferPtr(): the caller delete[]s it when it differs from the
//   buffer it passed in.
// - GetString hands out a new char[] block; the caller delete[]s it.
//
// Every operation returns 1 for success and 0 for failure unless it reports a
// size or pointer. Writes lay values down in host order (little-endian) and
// never swap; the swap flag acts on reads only.
class CDR {
public:
    CDR();
    CDR(unsigned char* buffer, unsigned int size, int byte_order, int reserved_value);
    virtual ~CDR();

    CDR(const CDR&) = delete;
    CDR& operator=(const CDR&) = delete;

    // Buffer handling.
    unsigned long long BytesRemaining() const;
    unsigned char* GetBufferPtr() const;
    unsigned long long GetBufferLen() const;
    unsigned long long GetContentLen() const;
    unsigned char SetContentLen(unsigned long long size);
    unsigned char ResetBuffer();
    unsigned char SetByteSwap(int swap);
    // Points the cursor behind the byte-order octet at data[0]. The buffer
    // start is kept, so alignment stays counted from it.
    unsigned char SetupEncapsulation(unsigned char* data, unsigned int length);
    unsigned char Grow(unsigned long long size);

    // One octet, not aligned.
    unsigned char GetByte(unsigned char& v);
    unsigned char PutByte(unsigned char v);
    unsigned char GetChar(char& v);
    unsigned char PutChar(char v);
    unsigned char GetOctet(unsigned char& v);
    unsigned char PutOctet(unsigned char v);
    // Only an octet 1 reads as true; true writes 1.
    unsigned char GetBoolean(bool& v);
    unsigned char PutBoolean(bool v);

    // Two octets, aligned to 2. A wide character travels as 16 bits: writing
    // drops the upper bits of a 32-bit wchar_t, reading zero-extends.
    unsigned char GetShort(short& v);
    unsigned char PutShort(short v);
    unsigned char GetUShort(unsigned short& v);
    unsigned char PutUShort(unsigned short v);
    unsigned char GetWChar(wchar_t& v);
    unsigned char PutWChar(wchar_t v);

    // Four octets, aligned to 4.
    unsigned char GetLong(int& v);
    unsigned char PutLong(int v);
    unsigned char GetULong(unsigned int& v);
    unsigned char PutULong(unsigned int v);
    unsigned char GetFloat(float& v);
    unsigned char PutFloat(float v);

    // Eight octets, aligned to 8.
    unsigned char GetLongLong(long long& v);
    unsigned char PutLongLong(long long v);
    unsigned char GetULongLong(unsigned long long& v);
    unsigned char PutULongLong(unsigned long long v);
    unsigned char GetDouble(double& v);
    unsigned char PutDouble(double v);

    // A 16-octet slot aligned to 16 whose first 8 octets carry the value as a
    // 64-bit double; the other 8 are left as the buffer held them.
    unsigned char GetLongDouble(long double& v);
    unsigned char PutLongDouble(long double v);

    // Raw octets, not aligned.
    unsigned char GetByteStr(unsigned char* dest, unsigned short n);
    unsigned char PutByteStr(unsigned char* src, unsigned short n);

    // A 4-octet length (terminator included), then the characters. On success
    // GetString stores a new char[] in dest that the caller delete[]s.
    unsigned char GetString(char*& dest);
    unsigned char PutString(const char* str);
    unsigned char SkipString();

    // Skip aligns to n (a power of two), then moves n; SkipBytes just moves.
    unsigned char Skip(short n);
    unsigned char SkipBytes(unsigned int n);

private:
    unsigned long long Available() const;
    unsigned long long OffsetOf(const unsigned char* p) const;
    unsigned long long StepFor(unsigned long long width) const;
    unsigned char* Claim(unsigned long long width, bool grow);
    unsigned char Read(void* target, unsigned long long width);
    unsigned char Write(const void* source, unsigned long long width);
    unsigned char ReserveOctets(unsigned long long n);

    unsigned char* m_pCursor;
    unsigned long long m_Remaining;
    unsigned char* m_pOwnedBuffer;
    int m_ReservedInt;
    unsigned char* m_pBase;
    unsigned long long m_Capacity;
    int m_ByteSwap;
    // End of the memory the cursor walks in: base + capacity, or the end of
    // the block given to SetupEncapsulation. Bounds every access, since
    // m_Remaining can be set beyond the real memory.
    unsigned char* m_pEnd;
};

#endif
