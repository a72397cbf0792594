// Tests of the CDR stream: layout, growth, swap on read, strings and bounds.
#include "CDR.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

// A stream whose buffer is heap memory; the grown (or initial) buffer is the
// caller's to free, so the fixture frees whatever GetBufferPtr() ends on.
struct HeapStream {
    explicit HeapStream(unsigned int size, int byteOrder = 1, unsigned char fill = 0)
        : s(Alloc(size, fill), size, byteOrder, 0)
    {
    }
    HeapStream() : s() {}
    ~HeapStream() { delete[] s.GetBufferPtr(); }
    static unsigned char* Alloc(unsigned int size, unsigned char fill)
    {
        if (size == 0) {
            return nullptr;
        }
        unsigned char* p = new unsigned char[size];
        std::memset(p, fill, size);
        return p;
    }
    std::vector<unsigned char> Bytes() const
    {
        return std::vector<unsigned char>(s.GetBufferPtr(), s.GetBufferPtr() + s.GetContentLen());
    }
    CDR s;
};

template <typename T>
T Reversed(T v)
{
    unsigned char b[sizeof(T)];
    std::memcpy(b, &v, sizeof(T));
    std::reverse(b, b + sizeof(T));
    std::memcpy(&v, b, sizeof(T));
    return v;
}

}  // namespace

TEST(CDR, FirstPutLongOnEmptyStreamGrowsTo4096)
{
    HeapStream h;
    EXPECT_EQ(h.s.GetBufferLen(), 0u);
    ASSERT_EQ(h.s.PutLong(7), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 4096u);
    EXPECT_EQ(h.s.GetContentLen(), 4u);
    EXPECT_EQ(h.s.BytesRemaining(), 4092u);
    EXPECT_EQ(h.Bytes(), (std::vector<unsigned char>{7, 0, 0, 0}));
}

TEST(CDR, OctetThenLongPadsToOffsetFour)
{
    HeapStream h(16, 1, 0xEE);
    ASSERT_EQ(h.s.PutOctet(0xAB), 1);
    ASSERT_EQ(h.s.PutLong(0x01020304), 1);
    EXPECT_EQ(h.s.GetContentLen(), 8u);
    // Padding keeps what the buffer held.
    EXPECT_EQ(h.Bytes(), (std::vector<unsigned char>{0xAB, 0xEE, 0xEE, 0xEE, 4, 3, 2, 1}));
    EXPECT_EQ(h.s.GetBufferLen(), 16u);
}

TEST(CDR, ReadBeyondRemainingFailsAndLeavesCursor)
{
    unsigned char buf[3] = {1, 2, 3};
    CDR s(buf, 3, 1, 0);
    int v = 42;
    EXPECT_EQ(s.GetLong(v), 0);
    EXPECT_EQ(v, 42);
    EXPECT_EQ(s.GetContentLen(), 0u);
    EXPECT_EQ(s.BytesRemaining(), 3u);
    unsigned char o = 0;
    EXPECT_EQ(s.GetOctet(o), 1);
    EXPECT_EQ(o, 1);

    // The padding counts towards the step: 1 + 3 + 4 exceeds 7.
    unsigned char buf7[7] = {};
    CDR t(buf7, 7, 1, 0);
    ASSERT_EQ(t.GetOctet(o), 1);
    EXPECT_EQ(t.GetLong(v), 0);
    EXPECT_EQ(t.GetContentLen(), 1u);
    EXPECT_EQ(t.BytesRemaining(), 6u);
}

TEST(CDR, BooleanReadsOnlyOneAsTrue)
{
    unsigned char buf[4] = {0, 1, 2, 0xFF};
    CDR s(buf, 4, 1, 0);
    bool b = true;
    ASSERT_EQ(s.GetBoolean(b), 1);
    EXPECT_FALSE(b);
    ASSERT_EQ(s.GetBoolean(b), 1);
    EXPECT_TRUE(b);
    ASSERT_EQ(s.GetBoolean(b), 1);
    EXPECT_FALSE(b);
    ASSERT_EQ(s.GetBoolean(b), 1);
    EXPECT_FALSE(b);
    EXPECT_EQ(s.GetBoolean(b), 0);

    HeapStream h;
    h.s.PutBoolean(true);
    h.s.PutBoolean(false);
    EXPECT_EQ(h.Bytes(), (std::vector<unsigned char>{1, 0}));
}

TEST(CDR, WideCharTravelsAsTwoOctets)
{
    HeapStream h;
    ASSERT_EQ(h.s.PutOctet(0), 1);
    ASSERT_EQ(h.s.PutWChar(static_cast<wchar_t>(0x12345)), 1);
    EXPECT_EQ(h.Bytes(), (std::vector<unsigned char>{0, 0, 0x45, 0x23}));
    h.s.ResetBuffer();
    wchar_t w = 0;
    unsigned char o = 0;
    h.s.GetOctet(o);
    ASSERT_EQ(h.s.GetWChar(w), 1);
    EXPECT_EQ(w, static_cast<wchar_t>(0x2345));
}

TEST(CDR, ResetBufferRewindsToBase)
{
    HeapStream h(32);
    h.s.PutLongLong(5);
    h.s.SetContentLen(3);
    ASSERT_EQ(h.s.ResetBuffer(), 1);
    EXPECT_EQ(h.s.GetContentLen(), 0u);
    EXPECT_EQ(h.s.BytesRemaining(), 32u);
    long long v = 0;
    ASSERT_EQ(h.s.GetLongLong(v), 1);
    EXPECT_EQ(v, 5);
}

TEST(CDR_Growth, GrowZeroAddsThenDoubles)
{
    HeapStream h;
    ASSERT_EQ(h.s.Grow(0), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 4096u);
    ASSERT_EQ(h.s.Grow(0), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 8192u);
    ASSERT_EQ(h.s.Grow(0), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 16384u);
    EXPECT_EQ(h.s.BytesRemaining(), 16384u);

    HeapStream small(100);
    ASSERT_EQ(small.s.Grow(0), 1);
    EXPECT_EQ(small.s.GetBufferLen(), 4196u);
}

TEST(CDR_Growth, GrowSizeRules)
{
    HeapStream h(4096);
    unsigned char* pBefore = h.s.GetBufferPtr();
    EXPECT_EQ(h.s.Grow(4096), 1);
    EXPECT_EQ(h.s.Grow(10), 1);
    EXPECT_EQ(h.s.GetBufferPtr(), pBefore);
    EXPECT_EQ(h.s.GetBufferLen(), 4096u);

    // Small excess adds 4096, a large one takes the size itself.
    ASSERT_EQ(h.s.Grow(5000), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 8192u);
    ASSERT_EQ(h.s.Grow(20000), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 20000u);
}

TEST(CDR_Growth, KeepsContentAndAlignment)
{
    HeapStream h(8, 1, 0xEE);
    h.s.PutOctet(1);
    h.s.PutOctet(2);
    h.s.PutOctet(3);
    ASSERT_EQ(h.s.PutLongLong(0x1122334455667788LL), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 8u + 4096u);
    EXPECT_EQ(h.s.GetContentLen(), 16u);
    EXPECT_EQ(h.s.BytesRemaining(), 8u + 4096u - 16u);
    std::vector<unsigned char> b = h.Bytes();
    EXPECT_EQ(b[0], 1);
    EXPECT_EQ(b[1], 2);
    EXPECT_EQ(b[2], 3);
    EXPECT_EQ(b[8], 0x88);
    EXPECT_EQ(b[15], 0x11);
}

TEST(CDR_Growth, ExactFitDoesNotGrowNextOctetDoes)
{
    HeapStream h(8);
    ASSERT_EQ(h.s.PutLongLong(1), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 8u);
    EXPECT_EQ(h.s.BytesRemaining(), 0u);
    ASSERT_EQ(h.s.PutOctet(9), 1);
    EXPECT_EQ(h.s.GetBufferLen(), 4104u);
    EXPECT_EQ(h.s.GetContentLen(), 9u);
}

TEST(CDR_Growth, ManyWritesReadBack)
{
    HeapStream h;
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(h.s.PutLong(i * 3), 1);
    }
    EXPECT_EQ(h.s.GetContentLen(), 20000u);
    EXPECT_EQ(h.s.GetBufferLen(), 32768u);
    CDR r(h.s.GetBufferPtr(), 20000, 1, 0);
    for (int i = 0; i < 5000; ++i) {
        int v = -1;
        ASSERT_EQ(r.GetLong(v), 1);
        ASSERT_EQ(v, i * 3);
    }
    int v = 0;
    EXPECT_EQ(r.GetLong(v), 0);
}

TEST(CDR_Growth, ByteStrGrowsByUsedPlusLength)
{
    HeapStream h(8);
    h.s.PutOctet(0x5A);
    std::vector<unsigned char> src(5000, 0x42);
    ASSERT_EQ(h.s.PutByteStr(src.data(), 5000), 1);
    // 1 used + 5000 exceeds 8 by far more than 4096: the size itself.
    EXPECT_EQ(h.s.GetBufferLen(), 5001u);
    EXPECT_EQ(h.s.GetContentLen(), 5001u);
    h.s.ResetBuffer();
    std::vector<unsigned char> dest(5001);
    ASSERT_EQ(h.s.GetByteStr(dest.data(), 5001), 1);
    EXPECT_EQ(dest[0], 0x5A);
    EXPECT_EQ(dest[5000], 0x42);
}

TEST(CDR_Alignment, CountsFromBaseAfterSetupEncapsulation)
{
    alignas(16) unsigned char block[32] = {};
    block[2] = 1;  // byte-order octet: little-endian
    block[4] = 0x78;
    block[5] = 0x56;
    block[6] = 0x34;
    block[7] = 0x12;
    CDR s(block, 32, 0, 5);
    ASSERT_EQ(s.SetupEncapsulation(block + 2, 10), 1);
    EXPECT_EQ(s.BytesRemaining(), 9u);
    EXPECT_EQ(s.GetContentLen(), 3u);
    EXPECT_EQ(s.GetBufferPtr(), block);
    EXPECT_EQ(s.GetBufferLen(), 32u);
    int v = 0;
    ASSERT_EQ(s.GetLong(v), 1);  // offset 3 aligns to 4 of the base, not of data
    EXPECT_EQ(v, 0x12345678);
    EXPECT_EQ(s.BytesRemaining(), 4u);
    long long ll = 0;
    EXPECT_EQ(s.GetLongLong(ll), 0);  // needs 8, 4 remain within the block
}

TEST(CDR_Alignment, EncapsulationOutsideBaseStaysRelativeAndBounded)
{
    alignas(16) unsigned char arena[64] = {};
    unsigned char* data = arena + 41;  // offset 41 from base; cursor at 42
    data[0] = 0;                       // big-endian
    data[3] = 0x00;
    data[4] = 0x00;
    data[5] = 0x00;
    data[6] = 0x2A;  // arena[44..47]
    CDR s(arena, 16, 1, 0);
    ASSERT_EQ(s.SetupEncapsulation(data, 8), 1);
    int v = 0;
    ASSERT_EQ(s.GetLong(v), 1);
    EXPECT_EQ(v, 42);
    EXPECT_EQ(s.BytesRemaining(), 1u);
    unsigned char o = 0;
    EXPECT_EQ(s.GetOctet(o), 1);
    EXPECT_EQ(s.GetOctet(o), 0);
    // A write that would need growth refuses: the cursor is not in the base.
    EXPECT_EQ(s.PutOctet(1), 0);
    EXPECT_EQ(s.GetBufferPtr(), arena);

    EXPECT_EQ(s.SetupEncapsulation(nullptr, 8), 0);
    EXPECT_EQ(s.SetupEncapsulation(data, 0), 0);
}

TEST(CDR_Alignment, EncapsulationOctetSetsAndClearsSwap)
{
    unsigned char le[8] = {1, 9, 9, 9, 1, 0, 0, 0};
    unsigned char be[8] = {0, 9, 9, 9, 0, 0, 0, 1};
    int v = 0;

    CDR s(le, 8, 0, 0);  // built swapping; the octet 1 turns it off
    ASSERT_EQ(s.SetupEncapsulation(le, 8), 1);
    EXPECT_EQ(s.BytesRemaining(), 7u);
    ASSERT_EQ(s.GetLong(v), 1);
    EXPECT_EQ(v, 1);

    CDR t(be, 8, 1, 0);  // built plain; any other octet turns swap on
    ASSERT_EQ(t.SetupEncapsulation(be, 8), 1);
    ASSERT_EQ(t.GetLong(v), 1);
    EXPECT_EQ(v, 1);
}

TEST(CDR_Alignment, SkipAlignsThenMoves)
{
    unsigned char buf[32] = {};
    CDR s(buf, 32, 1, 0);
    unsigned char o = 0;
    s.GetOctet(o);
    ASSERT_EQ(s.Skip(4), 1);
    EXPECT_EQ(s.GetContentLen(), 8u);
    ASSERT_EQ(s.Skip(8), 1);
    EXPECT_EQ(s.GetContentLen(), 16u);
    ASSERT_EQ(s.SkipBytes(3), 1);
    EXPECT_EQ(s.GetContentLen(), 19u);
    ASSERT_EQ(s.Skip(2), 1);
    EXPECT_EQ(s.GetContentLen(), 22u);
    EXPECT_EQ(s.Skip(16), 0);  // 32 + 16 > 32
    EXPECT_EQ(s.GetContentLen(), 22u);
    EXPECT_EQ(s.BytesRemaining(), 10u);
    EXPECT_EQ(s.SkipBytes(11), 0);
    EXPECT_EQ(s.Skip(-4), 0);
    EXPECT_EQ(s.GetContentLen(), 22u);
}

TEST(CDR_Strings, NullStringReadsBackAsEmpty)
{
    HeapStream h;
    ASSERT_EQ(h.s.PutString(nullptr), 1);
    EXPECT_EQ(h.Bytes(), (std::vector<unsigned char>{1, 0, 0, 0, 0}));
    CDR r(h.s.GetBufferPtr(), 5, 1, 0);
    char* str = nullptr;
    ASSERT_EQ(r.GetString(str), 1);
    ASSERT_NE(str, nullptr);
    EXPECT_STREQ(str, "");
    EXPECT_EQ(r.BytesRemaining(), 0u);
    delete[] str;
}

TEST(CDR_Strings, RoundTripWithFollowingValue)
{
    HeapStream h;
    ASSERT_EQ(h.s.PutString("hello"), 1);
    ASSERT_EQ(h.s.PutLong(-3), 1);
    EXPECT_EQ(h.s.GetContentLen(), 16u);  // 4 + 6, padded to 12, + 4
    std::vector<unsigned char> b = h.Bytes();
    EXPECT_EQ(b[0], 6);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&b[4])), "hello");

    CDR r(h.s.GetBufferPtr(), 16, 1, 0);
    char* str = nullptr;
    ASSERT_EQ(r.GetString(str), 1);
    EXPECT_STREQ(str, "hello");
    delete[] str;
    int v = 0;
    ASSERT_EQ(r.GetLong(v), 1);
    EXPECT_EQ(v, -3);

    r.ResetBuffer();
    ASSERT_EQ(r.SkipString(), 1);
    EXPECT_EQ(r.GetContentLen(), 10u);
}

TEST(CDR_Strings, LengthBeyondRemainingConsumesLengthWordOnly)
{
    unsigned char buf[6] = {10, 0, 0, 0, 'a', 'b'};
    CDR s(buf, 6, 1, 0);
    char* str = nullptr;
    EXPECT_EQ(s.GetString(str), 0);
    EXPECT_EQ(str, nullptr);
    EXPECT_EQ(s.GetContentLen(), 4u);
    EXPECT_EQ(s.BytesRemaining(), 2u);
    unsigned char o = 0;
    ASSERT_EQ(s.GetOctet(o), 1);
    EXPECT_EQ(o, 'a');

    CDR t(buf, 6, 1, 0);
    EXPECT_EQ(t.SkipString(), 0);
    EXPECT_EQ(t.GetContentLen(), 4u);

    // Too short for the length word itself: nothing is consumed.
    CDR u(buf, 3, 1, 0);
    EXPECT_EQ(u.GetString(str), 0);
    EXPECT_EQ(u.GetContentLen(), 0u);
}

TEST(CDR_Strings, UnterminatedStringStillEndsInItsBlock)
{
    unsigned char buf[7] = {3, 0, 0, 0, 'x', 'y', 'z'};
    CDR s(buf, 7, 1, 0);
    char* str = nullptr;
    ASSERT_EQ(s.GetString(str), 1);
    EXPECT_EQ(std::string(str), "xyz");
    delete[] str;
}

TEST(CDR_Strings, LongStringGrowsByStringRule)
{
    HeapStream h;
    std::string text(5000, 'q');
    ASSERT_EQ(h.s.PutString(text.c_str()), 1);
    // The length word grows to 4096; 4 used + 5001 exceeds it by less than 4096.
    EXPECT_EQ(h.s.GetBufferLen(), 8192u);
    EXPECT_EQ(h.s.GetContentLen(), 5005u);
    CDR r(h.s.GetBufferPtr(), 5005, 1, 0);
    char* str = nullptr;
    ASSERT_EQ(r.GetString(str), 1);
    EXPECT_EQ(std::string(str), text);
    delete[] str;
}

TEST(CDR_Swap, ByteOrderZeroSwapsReadsButNotWrites)
{
    unsigned char buf[4] = {0, 0, 0, 1};
    CDR s(buf, 4, 0, 0);
    int v = 0;
    ASSERT_EQ(s.GetLong(v), 1);
    EXPECT_EQ(v, 1);

    unsigned char* heap = new unsigned char[4];
    CDR w(heap, 4, 0, 0);
    ASSERT_EQ(w.PutLong(1), 1);
    EXPECT_EQ(std::vector<unsigned char>(heap, heap + 4), (std::vector<unsigned char>{1, 0, 0, 0}));
    delete[] w.GetBufferPtr();
}

TEST(CDR_Swap, BigEndianGoldenBytes)
{
    unsigned char buf[] = {0xAB, 0x00, 0x12, 0x34, 0x89, 0xAB, 0xCD, 0xEF,
                           0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    CDR s(buf, sizeof(buf), 0, 0);
    unsigned char o = 0;
    unsigned short us = 0;
    unsigned int ul = 0;
    unsigned long long ull = 0;
    ASSERT_EQ(s.GetOctet(o), 1);
    ASSERT_EQ(s.GetUShort(us), 1);
    ASSERT_EQ(s.GetULong(ul), 1);
    ASSERT_EQ(s.GetULongLong(ull), 1);
    EXPECT_EQ(o, 0xAB);
    EXPECT_EQ(us, 0x1234);
    EXPECT_EQ(ul, 0x89ABCDEFu);
    EXPECT_EQ(ull, 0x0102030405060708ULL);
    EXPECT_EQ(s.BytesRemaining(), 0u);

    ASSERT_EQ(s.SetByteSwap(0), 1);
    s.ResetBuffer();
    s.Skip(4);
    ASSERT_EQ(s.GetULong(ul), 1);
    EXPECT_EQ(ul, 0xEFCDAB89u);
}

// Writes every family, then reads back: plainly, and with swap over values
// that were written reversed.
template <bool Swap>
void RoundTripAllFamilies()
{
    auto put = [](auto v) { return Swap ? Reversed(v) : v; };
    HeapStream h;
    h.s.PutChar('c');
    h.s.PutShort(put(static_cast<short>(-2)));
    h.s.PutByte(0x7F);
    h.s.PutUShort(put(static_cast<unsigned short>(0xBEEF)));
    h.s.PutLong(put(-123456));
    h.s.PutOctet(1);
    h.s.PutULong(put(0xCAFEBABEu));
    h.s.PutFloat(put(3.25f));
    h.s.PutLongLong(put(-5LL));
    h.s.PutULongLong(put(0xFEEDFACECAFEBEEFULL));
    h.s.PutDouble(put(-0.125));
    h.s.PutBoolean(true);
    ASSERT_EQ(h.s.PutWChar(static_cast<wchar_t>(put(static_cast<unsigned short>(0x263A)))), 1);

    CDR r(h.s.GetBufferPtr(), static_cast<unsigned int>(h.s.GetContentLen()), Swap ? 0 : 1, 0);
    char c = 0;
    short sh = 0;
    unsigned char by = 0, oc = 0;
    unsigned short us = 0;
    int l = 0;
    unsigned int ul = 0;
    float f = 0;
    long long ll = 0;
    unsigned long long ull = 0;
    double d = 0;
    bool b = false;
    wchar_t wc = 0;
    ASSERT_EQ(r.GetChar(c), 1);
    ASSERT_EQ(r.GetShort(sh), 1);
    ASSERT_EQ(r.GetByte(by), 1);
    ASSERT_EQ(r.GetUShort(us), 1);
    ASSERT_EQ(r.GetLong(l), 1);
    ASSERT_EQ(r.GetOctet(oc), 1);
    ASSERT_EQ(r.GetULong(ul), 1);
    ASSERT_EQ(r.GetFloat(f), 1);
    ASSERT_EQ(r.GetLongLong(ll), 1);
    ASSERT_EQ(r.GetULongLong(ull), 1);
    ASSERT_EQ(r.GetDouble(d), 1);
    ASSERT_EQ(r.GetBoolean(b), 1);
    ASSERT_EQ(r.GetWChar(wc), 1);
    EXPECT_EQ(c, 'c');
    EXPECT_EQ(sh, -2);
    EXPECT_EQ(by, 0x7F);
    EXPECT_EQ(us, 0xBEEF);
    EXPECT_EQ(l, -123456);
    EXPECT_EQ(oc, 1);
    EXPECT_EQ(ul, 0xCAFEBABEu);
    EXPECT_EQ(f, 3.25f);
    EXPECT_EQ(ll, -5);
    EXPECT_EQ(ull, 0xFEEDFACECAFEBEEFULL);
    EXPECT_EQ(d, -0.125);
    EXPECT_TRUE(b);
    EXPECT_EQ(wc, static_cast<wchar_t>(0x263A));
    EXPECT_EQ(r.BytesRemaining(), 0u);
}

TEST(CDR_Swap, RoundTripEveryFamilyPlain) { RoundTripAllFamilies<false>(); }

TEST(CDR_Swap, RoundTripEveryFamilySwapped) { RoundTripAllFamilies<true>(); }

TEST(CDR_LongDouble, SlotOfSixteenCarriesEightOctets)
{
    HeapStream h(64, 1, 0xEE);
    h.s.PutOctet(1);
    ASSERT_EQ(h.s.PutLongDouble(1.5L), 1);
    EXPECT_EQ(h.s.GetContentLen(), 32u);
    std::vector<unsigned char> b = h.Bytes();
    double expect = 1.5;
    EXPECT_EQ(std::memcmp(&b[16], &expect, 8), 0);
    for (int i = 24; i < 32; ++i) {
        EXPECT_EQ(b[i], 0xEE) << i;  // the other half keeps what it held
    }

    h.s.ResetBuffer();
    unsigned char o = 0;
    h.s.GetOctet(o);
    long double ld = 0;
    ASSERT_EQ(h.s.GetLongDouble(ld), 1);
    EXPECT_EQ(ld, 1.5L);
    EXPECT_EQ(h.s.GetContentLen(), 32u);
}

TEST(CDR_LongDouble, SwappedReadReversesWholeSlot)
{
    unsigned char slot[16] = {};
    double value = -2.75;
    unsigned char raw[8];
    std::memcpy(raw, &value, 8);
    for (int i = 0; i < 8; ++i) {
        slot[15 - i] = raw[i];
    }
    alignas(16) unsigned char buf[16];
    std::memcpy(buf, slot, 16);
    CDR s(buf, 16, 0, 0);
    long double ld = 0;
    ASSERT_EQ(s.GetLongDouble(ld), 1);
    EXPECT_EQ(ld, -2.75L);
    EXPECT_EQ(s.BytesRemaining(), 0u);
}

TEST(CDR_LongDouble, ShortSlotFails)
{
    unsigned char buf[15] = {};
    CDR s(buf, 15, 1, 0);
    long double ld = 9;
    EXPECT_EQ(s.GetLongDouble(ld), 0);
    EXPECT_EQ(ld, 9);
    EXPECT_EQ(s.BytesRemaining(), 15u);
}

TEST(CDR_Bounds, ContentLenBeyondBufferNeverReadsPast)
{
    unsigned char* buf = new unsigned char[4]{1, 0, 0, 0};
    CDR s(buf, 4, 1, 0);
    s.SetContentLen(100);
    EXPECT_EQ(s.BytesRemaining(), 100u);
    int v = 0;
    ASSERT_EQ(s.GetLong(v), 1);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(s.GetLong(v), 0);
    unsigned char dest[8];
    EXPECT_EQ(s.GetByteStr(dest, 8), 0);
    EXPECT_EQ(s.SkipBytes(1), 0);
    EXPECT_EQ(s.Skip(1), 0);
    EXPECT_EQ(s.GetContentLen(), 4u);
    EXPECT_EQ(s.BytesRemaining(), 96u);

    // A write grows instead of running past the end.
    ASSERT_EQ(s.PutLong(2), 1);
    EXPECT_EQ(s.GetBufferLen(), 4100u);
    EXPECT_EQ(s.GetContentLen(), 8u);
    s.SetContentLen(5000);
    std::vector<unsigned char> big(4200, 1);
    ASSERT_EQ(s.PutByteStr(big.data(), 4200), 1);
    EXPECT_EQ(s.GetContentLen(), 4208u);
    EXPECT_EQ(s.GetBufferLen(), 4100u + 4096u);
    delete[] s.GetBufferPtr();
}

TEST(CDR_Bounds, ContentLenBelowBufferBoundsReads)
{
    unsigned char buf[16] = {};
    CDR s(buf, 16, 1, 0);
    s.SetContentLen(2);
    int v = 0;
    EXPECT_EQ(s.GetLong(v), 0);
    short sh = 0;
    EXPECT_EQ(s.GetShort(sh), 1);
    EXPECT_EQ(s.BytesRemaining(), 0u);
}
