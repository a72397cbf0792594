// Tests of the CDR stream: layout, growth, swap on read, strings and bounds.
#include "CDR.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

// A stream whose buffer is heap memory; the grown (or initial) buffer is the
// caller's to free, so this frees whatever GetBufferPtr() ends on.
struct HeapStream {
    explicit HeapStream(unsigned int size, unsigned char fill = 0) : s(new unsigned char[size], size, 1, 0) {
        std::memset(s.GetBufferPtr(), fill, size);
    }
    HeapStream() : s() {}
    ~HeapStream() { delete[] s.GetBufferPtr(); }
    Bytes Content() const { return Bytes(s.GetBufferPtr(), s.GetBufferPtr() + s.GetContentLen()); }
    CDR s;
};

// Writes v behind one octet, so that its alignment shows, then reads it back:
// plainly, and written reversed through a swapping stream.
template <class T>
void RoundTrip(unsigned char (CDR::*put)(T), unsigned char (CDR::*get)(T&), T v, unsigned int uiEnd) {
    for (int iSwap = 0; iSwap < 2; ++iSwap) {
        SCOPED_TRACE(iSwap ? "swapped" : "plain");
        T written = v;
        unsigned char* pWritten = reinterpret_cast<unsigned char*>(&written);
        if (iSwap) std::reverse(pWritten, pWritten + sizeof(T));
        HeapStream h;
        h.s.PutOctet(1);
        ASSERT_EQ((h.s.*put)(written), 1);
        EXPECT_EQ(h.s.GetContentLen(), uiEnd);
        CDR r(h.s.GetBufferPtr(), uiEnd, iSwap ? 0 : 1, 0);
        unsigned char o = 0;
        T read{};
        ASSERT_TRUE(r.GetOctet(o) && (r.*get)(read));
        EXPECT_EQ(read, v);
        EXPECT_EQ(r.BytesRemaining(), 0u);
    }
}

}  // namespace

TEST(CDR, EveryFamilyAlignsToItsSizeAndRoundTrips) {
    RoundTrip(&CDR::PutChar, &CDR::GetChar, 'c', 2);
    RoundTrip(&CDR::PutByte, &CDR::GetByte, (unsigned char)0x7F, 2);
    RoundTrip(&CDR::PutShort, &CDR::GetShort, short(-2), 4);
    RoundTrip(&CDR::PutUShort, &CDR::GetUShort, (unsigned short)0xBEEF, 4);
    RoundTrip(&CDR::PutLong, &CDR::GetLong, -123456, 8);
    RoundTrip(&CDR::PutULong, &CDR::GetULong, 0xCAFEBABEu, 8);
    RoundTrip(&CDR::PutFloat, &CDR::GetFloat, 3.25f, 8);
    RoundTrip(&CDR::PutLongLong, &CDR::GetLongLong, -5LL, 16);
    RoundTrip(&CDR::PutULongLong, &CDR::GetULongLong, 0xFEEDFACECAFEBEEFULL, 16);
    RoundTrip(&CDR::PutDouble, &CDR::GetDouble, -0.125, 16);
}

TEST(CDR, PaddingKeepsBufferBytesAndWritesNeverSwap) {
    HeapStream h(16, 0xEE);
    ASSERT_EQ(h.s.SetByteSwap(1), 1);
    ASSERT_EQ(h.s.PutOctet(0xAB), 1);
    ASSERT_EQ(h.s.PutLong(0x01020304), 1);
    EXPECT_EQ(h.Content(), (Bytes{0xAB, 0xEE, 0xEE, 0xEE, 4, 3, 2, 1}));

    unsigned char be[] = {0x89, 0xAB, 0xCD, 0xEF, 0, 0, 0, 0, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    CDR s(be, sizeof(be), 0, 0);
    unsigned int ul = 0;
    unsigned long long ull = 0;
    ASSERT_TRUE(s.GetULong(ul) && s.GetULongLong(ull));
    EXPECT_EQ(ul, 0x89ABCDEFu);
    EXPECT_EQ(ull, 0x0102030405060708ULL);
}

TEST(CDR, BooleanAndWideChar) {
    unsigned char buf[4] = {0, 1, 2, 0xFF};
    CDR s(buf, 4, 1, 0);
    for (bool expected : {false, true, false, false}) {  // only 1 reads as true
        bool b = !expected;
        ASSERT_EQ(s.GetBoolean(b), 1);
        EXPECT_EQ(expected, b);
    }
    HeapStream h;
    h.s.PutBoolean(true);
    ASSERT_EQ(h.s.PutWChar(static_cast<wchar_t>(0x12345)), 1);  // two octets, aligned to two
    EXPECT_EQ(h.Content(), (Bytes{1, 0, 0x45, 0x23}));
    h.s.ResetBuffer();
    wchar_t w = 0;
    ASSERT_TRUE(h.s.SkipBytes(1) && h.s.GetWChar(w));
    EXPECT_EQ(w, static_cast<wchar_t>(0x2345));
}

TEST(CDR, ReadsPastTheEndFailAndLeaveTheCursor) {
    unsigned char buf[16] = {1, 0, 0, 0};
    CDR s(buf, 7, 1, 0);
    unsigned char o = 0;
    int v = 42;
    ASSERT_EQ(s.GetOctet(o), 1);
    EXPECT_EQ(s.GetLong(v), 0);  // the padding counts: 1 + 3 + 4 exceeds 7
    EXPECT_EQ(v, 42);
    EXPECT_EQ(s.GetContentLen(), 1u);
    long double ld = 9;
    CDR shortSlot(buf, 15, 1, 0);
    EXPECT_EQ(shortSlot.GetLongDouble(ld), 0);
    EXPECT_EQ(ld, 9);

    // A content length beyond the buffer never reads past the memory.
    unsigned char* heap = new unsigned char[4]{1, 0, 0, 0};
    CDR t(heap, 4, 1, 0);
    t.SetContentLen(100);
    ASSERT_EQ(t.GetLong(v), 1);
    unsigned char dest[8];
    EXPECT_FALSE(t.GetLong(v) || t.GetByteStr(dest, 8) || t.SkipBytes(1) || t.Skip(1));
    EXPECT_EQ(t.GetContentLen(), 4u);
    ASSERT_EQ(t.PutLong(2), 1);  // a write grows instead
    EXPECT_EQ(t.GetBufferLen(), 4100u);
    t.SetContentLen(5000);
    std::vector<unsigned char> big(4200, 1);
    ASSERT_EQ(t.PutByteStr(big.data(), 4200), 1);
    EXPECT_EQ(t.GetBufferLen(), 4100u + 4096u);
    delete[] t.GetBufferPtr();
}

TEST(CDR_Growth, GrowSizeRules) {
    const struct {
        unsigned int initial, request, expected;
    } rows[] = {
        {0, 0, 4096},          // an empty stream starts at 4096
        {100, 0, 4196},        // Grow(0) adds 4096 to a small buffer...
        {8192, 0, 16384},      // ...and doubles one of 4096 or more
        {4096, 4096, 4096},    // a request that fits changes nothing
        {4096, 5000, 8192},    // a small excess adds 4096
        {4096, 20000, 20000},  // a large one takes the size itself
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.initial << " grow " << row.request);
        std::unique_ptr<HeapStream> h(row.initial != 0 ? new HeapStream(row.initial) : new HeapStream());
        ASSERT_EQ(h->s.Grow(row.request), 1);
        EXPECT_EQ(h->s.GetBufferLen(), row.expected);
    }
}

TEST(CDR_Growth, WritesGrowOnlyPastTheEndAndKeepContent) {
    HeapStream h(8);
    ASSERT_EQ(h.s.PutLongLong(0x1122334455667788LL), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 8u);  // exact fit
    ASSERT_TRUE(h.s.PutOctet(9) && h.s.PutLongLong(-1));
    EXPECT_EQ(h.s.GetBufferLen(), 8u + 4096u);
    EXPECT_EQ(h.Content(), (Bytes{0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 9,    0,    0,    0,
                                  0,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));

    // A byte string grows by used + length, a string by its own rule after the length word.
    HeapStream bs(8);
    std::vector<unsigned char> src(5000, 0x42);
    ASSERT_TRUE(bs.s.PutOctet(0x5A) && bs.s.PutByteStr(src.data(), 5000));
    EXPECT_EQ(bs.s.GetBufferLen(), 5001u);
    HeapStream str;
    const std::string text(5000, 'q');
    ASSERT_EQ(str.s.PutString(text.c_str()), 1);
    EXPECT_EQ(str.s.GetBufferLen(), 8192u);
    EXPECT_EQ(str.s.GetContentLen(), 5005u);
}

TEST(CDR_Alignment, EncapsulationCountsFromBaseAndSetsSwap) {
    alignas(16) unsigned char block[32] = {0, 0, 1, 0, 0x78, 0x56, 0x34, 0x12};  // byte-order octet 1 at [2]
    CDR s(block, 32, 0, 5);
    ASSERT_EQ(s.SetupEncapsulation(block + 2, 10), 1);
    EXPECT_EQ(s.BytesRemaining(), 9u);
    int v = 0;
    ASSERT_EQ(s.GetLong(v), 1);  // offset 3 aligns to 4 of the base, not of data
    EXPECT_EQ(v, 0x12345678);
    long long ll = 0;
    EXPECT_EQ(s.GetLongLong(ll), 0);  // needs 8, 4 remain within the block

    unsigned char be[8] = {0, 9, 9, 9, 0, 0, 0, 1};  // any octet but 1 turns swapping on
    CDR t(be, 8, 1, 0);
    ASSERT_EQ(t.SetupEncapsulation(be, 8), 1);
    ASSERT_EQ(t.GetLong(v), 1);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(t.SetupEncapsulation(nullptr, 8) + t.SetupEncapsulation(be, 0), 0);

    // A block outside the base stays relative to it and bounded by its own end.
    alignas(16) unsigned char arena[64] = {};
    arena[47] = 0x2A;
    CDR u(arena, 16, 1, 0);
    ASSERT_EQ(u.SetupEncapsulation(arena + 41, 8), 1);  // cursor at 42, long at 44
    ASSERT_EQ(u.GetLong(v), 1);
    EXPECT_EQ(v, 42);
    unsigned char o = 0;
    EXPECT_EQ(u.GetOctet(o), 1);
    EXPECT_EQ(u.GetOctet(o), 0);
    EXPECT_EQ(u.PutOctet(1), 0);  // growth refused: the cursor is not in the base
    EXPECT_EQ(u.GetBufferPtr(), arena);
}

TEST(CDR_Alignment, SkipAlignsThenMoves) {
    unsigned char buf[32] = {};
    CDR s(buf, 32, 1, 0);
    ASSERT_TRUE(s.SkipBytes(1) && s.Skip(8));
    EXPECT_EQ(s.GetContentLen(), 16u);
    ASSERT_TRUE(s.SkipBytes(3) && s.Skip(2));
    EXPECT_EQ(s.GetContentLen(), 22u);
    EXPECT_FALSE(s.Skip(16) || s.SkipBytes(11) || s.Skip(-4));
    EXPECT_EQ(s.GetContentLen(), 22u);
}

TEST(CDR_Strings, RoundTripNullAndFollowingValue) {
    HeapStream h;
    ASSERT_TRUE(h.s.PutString(nullptr) && h.s.PutString("hello") && h.s.PutLong(-3));
    // Null as an empty string, padded to 8; length 6 and "hello\0", padded to 20; the long.
    EXPECT_EQ(h.Content(), (Bytes{1,   0,   0,   0,   0,   0, 0, 0, 6,    0,    0,    0,
                                  'h', 'e', 'l', 'l', 'o', 0, 0, 0, 0xFD, 0xFF, 0xFF, 0xFF}));
    CDR r(h.s.GetBufferPtr(), 24, 1, 0);
    char* str = nullptr;
    ASSERT_EQ(r.GetString(str), 1);
    EXPECT_STREQ(str, "");
    delete[] str;
    ASSERT_EQ(r.SkipString(), 1);
    EXPECT_EQ(r.GetContentLen(), 18u);
}

TEST(CDR_Strings, MalformedLengthsStayInTheBlock) {
    unsigned char buf[7] = {10, 0, 0, 0, 'a', 'b'};
    char* str = nullptr;
    CDR s(buf, 6, 1, 0);
    EXPECT_EQ(s.GetString(str), 0);  // consumes the length word only
    EXPECT_EQ(str, nullptr);
    EXPECT_EQ(s.GetContentLen(), 4u);
    CDR t(buf, 6, 1, 0);
    EXPECT_EQ(t.SkipString(), 0);
    EXPECT_EQ(t.GetContentLen(), 4u);
    CDR u(buf, 3, 1, 0);  // too short for the length word: nothing consumed
    EXPECT_EQ(u.GetString(str), 0);
    EXPECT_EQ(u.GetContentLen(), 0u);

    unsigned char unterminated[7] = {3, 0, 0, 0, 'x', 'y', 'z'};
    CDR w(unterminated, 7, 1, 0);
    ASSERT_EQ(w.GetString(str), 1);
    EXPECT_EQ(std::string(str), "xyz");
    delete[] str;
}

TEST(CDR, LongDoubleSlotOfSixteenCarriesEightOctets) {
    HeapStream h(64, 0xEE);
    ASSERT_TRUE(h.s.PutOctet(1) && h.s.PutLongDouble(1.5L));
    const Bytes b = h.Content();
    ASSERT_EQ(b.size(), 32u);
    const double expect = 1.5;
    EXPECT_EQ(std::memcmp(&b[16], &expect, 8), 0);
    EXPECT_EQ(Bytes(b.begin() + 24, b.end()), Bytes(8, 0xEE));  // the other half keeps what it held

    alignas(16) unsigned char slot[16] = {};  // a swapped read reverses the whole slot
    const double value = -2.75;
    std::memcpy(slot, &value, 8);
    std::reverse(slot, slot + 16);
    CDR s(slot, 16, 0, 0);
    long double ld = 0;
    ASSERT_EQ(s.GetLongDouble(ld), 1);
    EXPECT_EQ(ld, -2.75L);
}
