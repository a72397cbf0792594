// The CDR stream: every type round trip in both byte orders with its alignment
// and bounds, the encapsulation's alignment base, and the string rules.
#include "CDR.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

typedef std::vector<unsigned char> Bytes;

// A stream that starts without memory and grows; it frees what it ends on.
struct HeapStream {
    ~HeapStream() { delete[] s.GetBufferPtr(); }
    Bytes Content() const { return Bytes(s.GetBufferPtr(), s.GetBufferPtr() + s.GetContentLen()); }
    CDR s{nullptr, 0, 1, 0};
};

// Writes v behind one octet, so that its alignment shows, then reads it back:
// plainly, and written reversed through a swapping stream. One octet less
// fails the read and leaves the target alone.
template <class T>
void RoundTrip(unsigned char (CDR::*put)(T), unsigned char (CDR::*get)(T&), T v, unsigned int uiEnd) {
    for (int iSwap = 0; iSwap < 2; ++iSwap) {
        SCOPED_TRACE(iSwap ? "swapped" : "plain");
        T written = v;
        if (iSwap) std::reverse(reinterpret_cast<char*>(&written), reinterpret_cast<char*>(&written + 1));
        HeapStream h;
        ASSERT_TRUE(h.s.PutOctet(1) && (h.s.*put)(written));
        EXPECT_EQ(h.s.GetContentLen(), uiEnd);
        CDR r(h.s.GetBufferPtr(), uiEnd, iSwap ? 0 : 1, 0), cut(h.s.GetBufferPtr(), uiEnd - 1, 1, 0);
        unsigned char o = 0;
        T read{}, untouched{};
        ASSERT_TRUE(r.GetOctet(o) && (r.*get)(read));
        EXPECT_EQ(read, v);
        EXPECT_EQ(r.BytesRemaining(), 0u);
        EXPECT_FALSE(cut.GetOctet(o) && (cut.*get)(untouched));
        EXPECT_EQ(untouched, T{});
        EXPECT_EQ(cut.GetContentLen(), 1u);
    }
}

}  // namespace

TEST(CDR, EveryTypeAlignsToItsSizeAndRoundTripsInBothByteOrders) {
    RoundTrip(&CDR::PutChar, &CDR::GetChar, 'c', 2);
    RoundTrip(&CDR::PutByte, &CDR::GetByte, (unsigned char)0x7F, 2);
    RoundTrip(&CDR::PutBoolean, &CDR::GetBoolean, true, 2);
    RoundTrip(&CDR::PutShort, &CDR::GetShort, short(-2), 4);
    RoundTrip(&CDR::PutUShort, &CDR::GetUShort, (unsigned short)0xBEEF, 4);
    RoundTrip(&CDR::PutLong, &CDR::GetLong, -123456, 8);
    RoundTrip(&CDR::PutULong, &CDR::GetULong, 0xCAFEBABEu, 8);
    RoundTrip(&CDR::PutFloat, &CDR::GetFloat, 3.25f, 8);
    RoundTrip(&CDR::PutLongLong, &CDR::GetLongLong, -5LL, 16);
    RoundTrip(&CDR::PutULongLong, &CDR::GetULongLong, 0xFEEDFACECAFEBEEFULL, 16);
    RoundTrip(&CDR::PutDouble, &CDR::GetDouble, -0.125, 16);
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

    // Skip aligns, then moves; SkipBytes just moves; neither passes the end.
    unsigned char buf[32] = {};
    CDR w(buf, 32, 1, 0);
    ASSERT_TRUE(w.SkipBytes(1) && w.Skip(8) && w.SkipBytes(3) && w.Skip(2));
    EXPECT_EQ(w.GetContentLen(), 22u);
    EXPECT_FALSE(w.Skip(16) || w.SkipBytes(11) || w.Skip(-4));
    EXPECT_EQ(w.GetContentLen(), 22u);
}

TEST(CDR_Strings, RoundTripNullAndMalformedLengthsStayInTheBlock) {
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

    unsigned char buf[7] = {10, 0, 0, 0, 'a', 'b'};
    str = nullptr;
    CDR s(buf, 6, 1, 0), t(buf, 6, 1, 0), u(buf, 3, 1, 0);
    EXPECT_EQ(s.GetString(str), 0);  // consumes the length word only
    EXPECT_EQ(str, nullptr);
    EXPECT_EQ(s.GetContentLen(), 4u);
    EXPECT_EQ(t.SkipString(), 0);
    EXPECT_EQ(t.GetContentLen(), 4u);
    EXPECT_EQ(u.GetString(str), 0);  // too short for the length word: nothing consumed
    EXPECT_EQ(u.GetContentLen(), 0u);

    unsigned char unterminated[7] = {3, 0, 0, 0, 'x', 'y', 'z'};
    CDR w(unterminated, 7, 1, 0);
    ASSERT_EQ(w.GetString(str), 1);
    EXPECT_EQ(std::string(str), "xyz");
    delete[] str;
    HeapStream big;  // longer than one growth step
    ASSERT_EQ(big.s.PutString(std::string(5000, 'q').c_str()), 1);
    EXPECT_EQ(big.s.GetContentLen(), 5005u);
}
