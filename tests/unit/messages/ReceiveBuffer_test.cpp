// The datagram ring: record layout across the array's end, the room rule, the
// data gate between a writer and a waiting reader, and the wake that ends the
// process loop's wait on a stop.
#include "messages/ReceiveBuffer.h"

#include <gtest/gtest.h>

#include "DDSLogManagementFactory.h"
#include "DataSendRig.h"
#include "messages/MessageProcessor.h"

namespace {
using Clock = std::chrono::steady_clock;

long long ElapsedMs(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

std::vector<octet> Pattern(size_t uiLength, octet seed) {
    std::vector<octet> data(uiLength);
    for (size_t i = 0; i < uiLength; ++i) data[i] = static_cast<octet>(seed + i * 7);
    return data;
}

// Reads one record and checks it against data.
void ExpectRecord(ReceiveBuffer& ring, const std::vector<octet>& data) {
    std::vector<octet> out(65536, 0);
    uint32_t uiLength = 0;
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    ASSERT_EQ(data.size(), uiLength);
    // memcmp must not see the null data() of an empty record.
    if (uiLength != 0) {
        EXPECT_EQ(0, std::memcmp(data.data(), out.data(), uiLength));
    }
}

// Expects an empty-ring read: result 1, nothing touched, after the full
// one-second wait or (woken) at once.
void ExpectNothing(ReceiveBuffer& ring, bool bFullWait) {
    std::vector<octet> out(65536, 0xAB);
    uint32_t uiLength = 1234;
    Clock::time_point start = Clock::now();
    EXPECT_EQ(1, ring.Read(out.data(), uiLength));
    long long llElapsed = ElapsedMs(start);
    EXPECT_TRUE(bFullWait ? llElapsed >= 950 && llElapsed <= 1500 : llElapsed < 200) << llElapsed << " ms";
    EXPECT_EQ(1234u, uiLength);
    EXPECT_EQ(0xAB, out[0]);
}
}  // namespace

TEST(ReceiveBuffer_wrap, RecordsSplitAtEveryPointAcrossTheEnd) {
    struct Row {
        uint32_t uiOffset;  // where the next record of the empty ring starts
        std::vector<uint32_t> sizes;
    };
    const std::vector<Row> rows = {
        {61, {20}},     {62, {20}}, {63, {20}},  // 3, 2 and 1 prefix bytes before the end
        {40, {30}},                              // the body straddles the end
        {32, {28, 10}},                          // the first ends exactly at the end, the next at 0
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.uiOffset);
        ReceiveBuffer ring(64);
        std::vector<octet> filler(row.uiOffset - 4, 0xEE);
        ASSERT_EQ(0, ring.Write(filler.data(), uint32_t(filler.size())));
        ExpectRecord(ring, filler);
        uint32_t uiUsed = 0;
        std::vector<std::vector<octet>> records;
        for (uint32_t uiSize : row.sizes) {
            records.push_back(Pattern(uiSize, static_cast<octet>(uiSize + row.uiOffset)));
            ASSERT_EQ(0, ring.Write(records.back().data(), uiSize));
            uiUsed += uiSize + 4;
        }
        EXPECT_EQ(64u - uiUsed, ring.GetAvailableLength());
        for (const std::vector<octet>& record : records) ExpectRecord(ring, record);
        EXPECT_EQ(64u, ring.GetAvailableLength());
    }
}

TEST(ReceiveBuffer_room, RefusedUnlessMoreThanLengthPlusFourIsFreeAndStoredRecordsStay) {
    LogRecorder log;
    ReceiveBuffer ring(64);
    ring.SetDomainId(0x10007);
    std::vector<octet> data = Pattern(60, 0);
    octet byte = 0;
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(data.data(), 60));  // 64 free == 60 + 4
    // A huge length must not wrap the room test.
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(&byte, 0xFFFFFFFFu));
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(&byte, 0xFFFFFFFDu));
    EXPECT_EQ(64u, ring.GetAvailableLength());
    std::vector<LogEntry> lines = log.Entries();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("[ReceiveBuffer::Write] uiAvailableLength = 64 and uiLength = 60", lines[0].text);
    EXPECT_EQ(0x10007, lines[0].key);
    EXPECT_EQ(DDSLOG_INFO, lines[0].code);

    std::vector<octet> a = Pattern(20, 1);
    std::vector<octet> b = Pattern(20, 2);
    ASSERT_EQ(0, ring.Write(a.data(), 20));
    ASSERT_EQ(0, ring.Write(b.data(), 20));
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(a.data(), 12));  // 16 free, not > 16
    EXPECT_EQ(0, ring.Write(a.data(), 11));
    EXPECT_EQ(1u, ring.GetAvailableLength());
    ExpectRecord(ring, a);
    ExpectRecord(ring, b);
    ExpectRecord(ring, std::vector<octet>(a.begin(), a.begin() + 11));
}

TEST(ReceiveBuffer_read, EmptyZeroLengthAndCutRecords) {
    LogRecorder log;
    ReceiveBuffer ring(256);
    ExpectNothing(ring, true);  // silently, after about one second
    EXPECT_TRUE(log.Entries().empty());

    ASSERT_EQ(0, ring.Write(nullptr, 0));  // a zero-length record is a record
    EXPECT_EQ(252u, ring.GetAvailableLength());
    ExpectRecord(ring, {});

    // A record longer than the destination is cut, and its rest skipped.
    std::vector<octet> big = Pattern(100, 5);
    std::vector<octet> next = Pattern(8, 6);
    ASSERT_EQ(0, ring.Write(big.data(), 100));
    ASSERT_EQ(0, ring.Write(next.data(), 8));
    std::vector<octet> out(64 + 1, 0xAB);
    uint32_t uiLength = 0;
    ASSERT_EQ(0, ring.Read(out.data(), uiLength, 64));
    EXPECT_EQ(100u, uiLength);
    EXPECT_EQ(0, std::memcmp(big.data(), out.data(), 64));
    EXPECT_EQ(0xAB, out[64]);
    ExpectRecord(ring, next);

    ReceiveBuffer large;  // the default capacity
    EXPECT_EQ(52428800u, large.GetLength());
    EXPECT_EQ(52428800u, large.GetAvailableLength());
}

TEST(ReceiveBuffer_order, ManyRecordsComeBackInOrderAcrossWraps) {
    // Records of varying size keep the indices drifting over the end of a
    // small ring, so every split of prefix and body occurs.
    ReceiveBuffer ring(1000);
    auto record = [](uint32_t uiIndex) {
        std::vector<octet> data = Pattern(1 + (uiIndex * 37) % 200, static_cast<octet>(uiIndex));
        std::memcpy(data.data(), &uiIndex, data.size() >= 4 ? 4 : 0);
        return data;
    };
    uint32_t uiNextToRead = 0;
    uint32_t uiNextToWrite = 0;
    for (int iRound = 0; iRound < 401; ++iRound) {
        for (int k = 0; k < 3 && iRound < 400; ++k) {
            std::vector<octet> data = record(uiNextToWrite);
            if (ring.Write(data.data(), uint32_t(data.size())) != 0) break;
            ++uiNextToWrite;
        }
        for (int k = 0; (k < 2 || iRound == 400) && uiNextToRead < uiNextToWrite; ++k) {
            SCOPED_TRACE(uiNextToRead);
            ExpectRecord(ring, record(uiNextToRead++));
            if (HasFatalFailure()) return;
        }
    }
    EXPECT_GT(uiNextToWrite, 500u);
    EXPECT_EQ(1000u, ring.GetAvailableLength());
}

TEST(ReceiveBuffer_gate, WaitingReaderIsWokenByAWrite) {
    ReceiveBuffer ring(4096);
    std::atomic<long long> waitedMs(-1);
    std::vector<octet> data = Pattern(33, 4);
    std::thread reader([&] {
        Clock::time_point start = Clock::now();
        ExpectRecord(ring, data);
        waitedMs = ElapsedMs(start);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(0, ring.Write(data.data(), 33));
    reader.join();
    // Woken by the write, well before the one-second limit.
    EXPECT_GE(waitedMs.load(), 100);
    EXPECT_LT(waitedMs.load(), 900);
}

TEST(ReceiveBuffer_gate, ConcurrentWritersAndOneReaderLoseNothing) {
    ReceiveBuffer ring(64 * 1024);
    const int kWriters = 4;
    const int kPerWriter = 2000;
    std::atomic<int> refused(0);
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < kPerWriter; ++i) {
                uint32_t auiRecord[2] = {static_cast<uint32_t>(w), static_cast<uint32_t>(i)};
                int iTries = 0;  // retry, bounded, when the reader lags
                while (ring.Write(reinterpret_cast<octet*>(auiRecord), sizeof(auiRecord)) != 0 &&
                       ++iTries <= 5000)
                    std::this_thread::yield();
                if (iTries > 5000) ++refused;
            }
        });
    }
    std::vector<uint32_t> nextPerWriter(kWriters, 0);
    std::vector<octet> out(65536);
    int iReceived = 0;
    Clock::time_point start = Clock::now();
    while (iReceived + refused.load() < kWriters * kPerWriter && ElapsedMs(start) < 20000) {
        uint32_t uiLength = 0;
        if (ring.Read(out.data(), uiLength) != 0) continue;
        ASSERT_EQ(8u, uiLength);
        uint32_t auiRecord[2];
        std::memcpy(auiRecord, out.data(), 8);
        ASSERT_LT(auiRecord[0], static_cast<uint32_t>(kWriters));
        EXPECT_EQ(nextPerWriter[auiRecord[0]], auiRecord[1]);  // each writer's own order
        nextPerWriter[auiRecord[0]] = auiRecord[1] + 1;
        ++iReceived;
    }
    for (std::thread& t : writers) t.join();
    EXPECT_EQ(0, refused.load());
    EXPECT_EQ(kWriters * kPerWriter, iReceived);
    EXPECT_EQ(64u * 1024u, ring.GetAvailableLength());
}

// Wake: the stop's early end of a reader's wait.
TEST(ReceiveBuffer_wake, EndsOneWaitSilentlyAndIsNeitherLostNorKept) {
    LogRecorder log;
    ReceiveBuffer ring(256);
    std::thread reader([&] { ExpectNothing(ring, false); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // inside the wait by now
    ring.Wake();
    reader.join();

    // Before the read: not lost, and the gate holds one token, so a second wake adds nothing.
    ring.Wake();
    ring.Wake();
    ExpectNothing(ring, false);
    ExpectNothing(ring, true);

    // With records waiting the gate is open already: they are read in order,
    // and the wake is spent with them.
    std::vector<octet> a = Pattern(10, 1);
    std::vector<octet> b = Pattern(20, 2);
    ASSERT_EQ(0, ring.Write(a.data(), 10));
    ASSERT_EQ(0, ring.Write(b.data(), 20));
    ring.Wake();
    ExpectRecord(ring, a);
    ExpectRecord(ring, b);
    ExpectNothing(ring, true);
    EXPECT_TRUE(log.Entries().empty());  // a wake is not an empty-ring fault
}

TEST(ReceiveBuffer_wake, ProcessLoopStopsWithinMillisecondsWithItsUsualLines) {
    LogRecorder log;
    ReceiveBuffer ring(4096);
    const GuidPrefix prefix = {{10, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0}};
    MessageProcessor processor(nullptr, &ring, prefix, 0);

    testing::internal::CaptureStdout();
    std::thread loop(&MessageProcessor::ProcessRun, &processor);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));  // inside the ring's wait
    Clock::time_point start = Clock::now();
    processor.RequestStop();
    while (!processor.IsStopped() && ElapsedMs(start) < 3000)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    long long llStopMs = ElapsedMs(start);
    loop.join();
    std::string strOut = testing::internal::GetCapturedStdout();

    EXPECT_TRUE(processor.IsStopped());
    EXPECT_FALSE(processor.IsRunning());
    EXPECT_LT(llStopMs, 200);
    EXPECT_EQ("Stop Process Thread .. \n", strOut);
    // Exactly the four stop lines, in their order: the woken read logged nothing.
    std::vector<LogEntry> lines = log.Entries();
    ASSERT_EQ(4u, lines.size());
    const int aiCodes[] = {DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ("Stop Process Thread Sucess", lines[i].text);
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(aiCodes[i], lines[i].code);
}
