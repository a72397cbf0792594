// The datagram ring: record layout across the array's end, the room rule, the
// data gate between writers and a waiting reader, and the wake that ends the
// process loop's wait on a stop.
#include "messages/ReceiveBuffer.h"

#include <gtest/gtest.h>

#include "DataSendRig.h"

namespace {
using Clock = std::chrono::steady_clock;
typedef std::vector<octet> Octets;

long long ElapsedMs(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

Octets Pattern(size_t uiLength, octet seed) {
    Octets data(uiLength);
    for (size_t i = 0; i < uiLength; ++i) data[i] = static_cast<octet>(seed + i * 7);
    return data;
}

struct Ring : ReceiveBuffer {
    using ReceiveBuffer::ReceiveBuffer;
    int Put(const Octets& data) { return Write(data.data(), uint32_t(data.size())); }

    // Reads one record into uiRoom octets: its full length, its octets cut to
    // the room, nothing written beyond.
    void Expect(const Octets& data, uint32_t uiRoom = READ_DESTINATION_SIZE) {
        Octets out(uiRoom + 1, 0xAB);
        uint32_t uiLength = 0;
        ASSERT_EQ(0, Read(out.data(), uiLength, uiRoom));
        EXPECT_EQ(data.size(), uiLength);
        const size_t n = std::min<size_t>(data.size(), uiRoom);
        EXPECT_EQ(Octets(data.begin(), data.begin() + n), Octets(out.begin(), out.begin() + n));
        EXPECT_EQ(0xAB, out[n]);
    }

    // An empty-ring read: result 1, nothing touched, after the full one-second
    // wait or (woken) at once.
    void ExpectNothing(bool bFullWait) {
        Octets out(16, 0xAB);
        uint32_t uiLength = 1234;
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(1, Read(out.data(), uiLength));
        const long long llElapsed = ElapsedMs(start);
        EXPECT_TRUE(bFullWait ? llElapsed >= 950 && llElapsed <= 1500 : llElapsed < 200)
            << llElapsed << " ms";
        EXPECT_EQ(1234u, uiLength);
        EXPECT_EQ(Octets(16, 0xAB), out);
    }
};
}  // namespace

TEST(ReceiveBuffer_wrap, RecordsSplitAtEveryPointAcrossTheEnd) {
    const struct {
        uint32_t uiOffset;  // where the next record of the empty ring starts
        std::vector<uint32_t> sizes;
    } rows[] = {
        {61, {20}},     {62, {20}}, {63, {20}},  // 3, 2 and 1 prefix bytes before the end
        {40, {30}},                              // the body straddles the end
        {32, {28, 10}},                          // the first ends exactly at the end, the next at 0
        {62, {0, 8}},                            // a zero-length record is a record
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.uiOffset);
        Ring ring(64);
        const Octets filler(row.uiOffset - 4, 0xEE);
        ASSERT_EQ(0, ring.Put(filler));
        ring.Expect(filler);
        uint32_t uiUsed = 0;
        std::vector<Octets> records;
        for (uint32_t uiSize : row.sizes) {
            records.push_back(Pattern(uiSize, static_cast<octet>(uiSize + row.uiOffset)));
            ASSERT_EQ(0, ring.Put(records.back()));
            uiUsed += uiSize + 4;
        }
        EXPECT_EQ(64u - uiUsed, ring.GetAvailableLength());
        for (const Octets& record : records) ring.Expect(record);
        EXPECT_EQ(64u, ring.GetAvailableLength());
    }
}

TEST(ReceiveBuffer_room, RefusedUnlessMoreThanLengthPlusFourIsFreeAndStoredRecordsStay) {
    LogRecorder log;
    Ring ring(64);
    const Octets data = Pattern(60, 0), a = Pattern(20, 1), b = Pattern(20, 2);
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Put(data));  // 64 free == 60 + 4
    // A huge length must not wrap the room test.
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(data.data(), 0xFFFFFFFFu));
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(data.data(), 0xFFFFFFFDu));
    EXPECT_EQ(64u, ring.GetAvailableLength());
    // One line for each refusal; its text and key are checked where the transport fills the ring.
    EXPECT_EQ(3u, log.Entries().size());

    ASSERT_EQ(0, ring.Put(a) + ring.Put(b));
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(a.data(), 12));  // 16 free, not > 16
    EXPECT_EQ(0, ring.Write(a.data(), 11));
    EXPECT_EQ(1u, ring.GetAvailableLength());
    // A record longer than the destination is cut, and its rest skipped.
    ring.Expect(a, 13);
    ring.Expect(b);
    ring.Expect(Octets(a.begin(), a.begin() + 11));
}

// Writers on several threads against one reader: a waiting reader is woken by a
// write, and every record comes back whole and in its writer's order, across
// many wraps of the ring.
TEST(ReceiveBuffer_gate, ConcurrentWritersAndOneReaderLoseNothing) {
    ReceiveBuffer ring(64 * 1024);
    const int kWriters = 4, kPerWriter = 2000;
    std::atomic<int> refused(0);
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            std::this_thread::sleep_for(std::chrono::milliseconds(150));  // the reader waits first
            for (uint32_t i = 0; i < kPerWriter; ++i) {
                const uint32_t auiRecord[2] = {uint32_t(w), i};
                int iTries = 0;  // retry, bounded, when the reader lags
                while (ring.Write(reinterpret_cast<const octet*>(auiRecord), sizeof(auiRecord)) != 0 &&
                       ++iTries <= 5000)
                    std::this_thread::yield();
                if (iTries > 5000) ++refused;
            }
        });
    }
    std::vector<uint32_t> nextPerWriter(kWriters, 0);
    Octets out(65536);
    int iReceived = 0;
    const Clock::time_point start = Clock::now();
    while (iReceived + refused.load() < kWriters * kPerWriter && ElapsedMs(start) < 20000) {
        uint32_t uiLength = 0;
        if (ring.Read(out.data(), uiLength) != 0) continue;
        // The first write wakes the waiting reader, well before the one-second limit.
        EXPECT_TRUE(iReceived > 0 || (ElapsedMs(start) >= 100 && ElapsedMs(start) < 900)) << ElapsedMs(start);
        ASSERT_EQ(8u, uiLength);
        uint32_t auiRecord[2];
        std::memcpy(auiRecord, out.data(), 8);
        ASSERT_LT(auiRecord[0], uint32_t(kWriters));
        EXPECT_EQ(nextPerWriter[auiRecord[0]]++, auiRecord[1]);
        ++iReceived;
    }
    for (std::thread& t : writers) t.join();
    EXPECT_EQ(0, refused.load());
    EXPECT_EQ(kWriters * kPerWriter, iReceived);
    EXPECT_EQ(64u * 1024u, ring.GetAvailableLength());
}

// Wake: the stop's early end of a reader's wait. An empty ring's read is silent.
TEST(ReceiveBuffer_wake, EndsOneWaitSilentlyAndIsNeitherLostNorKept) {
    LogRecorder log;
    Ring ring(256);
    ring.ExpectNothing(true);
    std::thread reader([&] { ring.ExpectNothing(false); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // inside the wait by now
    ring.Wake();
    reader.join();

    // Before the read: not lost, and the gate holds one token, so a second wake adds nothing.
    ring.Wake();
    ring.Wake();
    ring.ExpectNothing(false);
    ring.ExpectNothing(true);

    // With records waiting the gate is open already: they are read in order,
    // and the wake is spent with them.
    const Octets a = Pattern(10, 1), b = Pattern(20, 2);
    ASSERT_EQ(0, ring.Put(a) + ring.Put(b));
    ring.Wake();
    ring.Expect(a);
    ring.Expect(b);
    ring.ExpectNothing(true);
    EXPECT_TRUE(log.Entries().empty());  // a wake is not an empty-ring fault
}
