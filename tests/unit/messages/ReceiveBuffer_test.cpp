// The datagram ring: record layout across the array's end, the room rule, the
// data gate between a writer and a waiting reader, and the wake that ends the
// process loop's wait on a stop.
#include "messages/ReceiveBuffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "log/LogObserver.h"
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

// Collects the texts handed to the log while it lives.
class LogCapture {
public:
    LogCapture() { SetLogObserver(&LogCapture::Observe, this); }
    ~LogCapture() { SetLogObserver(nullptr, nullptr); }

    std::vector<std::string> Lines() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Lines;
    }
    std::vector<int> Keys() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Keys;
    }

private:
    static void Observe(void* context, int key, const char* text, size_t length, int code) {
        LogCapture* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        self->m_Lines.emplace_back(text, length);
        self->m_Keys.push_back(key);
        EXPECT_EQ(DDSLOG_INFO, code);
    }

    std::mutex m_Mutex;
    std::vector<std::string> m_Lines;
    std::vector<int> m_Keys;
};

// Writes and reads back one filler record so that the next record of an empty
// ring starts at uiOffset.
void MoveIndicesTo(ReceiveBuffer& ring, uint32_t uiOffset) {
    ASSERT_GE(uiOffset, 4u);
    std::vector<octet> filler(uiOffset - 4, 0xEE);
    ASSERT_EQ(0, ring.Write(filler.data(), static_cast<uint32_t>(filler.size())));
    std::vector<octet> out(65536);
    uint32_t uiLength = 0;
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    ASSERT_EQ(filler.size(), uiLength);
    ASSERT_EQ(ring.GetLength(), ring.GetAvailableLength());
}
}  // namespace

TEST(ReceiveBuffer_wrap, LengthPrefixStraddlesTheEnd) {
    for (uint32_t uiOffset : {61u, 62u, 63u})  // 3, 2 and 1 prefix bytes before the end
    {
        SCOPED_TRACE(uiOffset);
        ReceiveBuffer ring(64);
        MoveIndicesTo(ring, uiOffset);
        std::vector<octet> data = Pattern(20, static_cast<octet>(uiOffset));
        ASSERT_EQ(0, ring.Write(data.data(), 20));
        EXPECT_EQ(64u - 24u, ring.GetAvailableLength());

        std::vector<octet> out(65536, 0);
        uint32_t uiLength = 0;
        ASSERT_EQ(0, ring.Read(out.data(), uiLength));
        ASSERT_EQ(20u, uiLength);
        EXPECT_EQ(0, std::memcmp(data.data(), out.data(), 20));
        EXPECT_EQ(64u, ring.GetAvailableLength());
    }
}

TEST(ReceiveBuffer_wrap, BodyStraddlesTheEnd) {
    ReceiveBuffer ring(64);
    MoveIndicesTo(ring, 40);  // prefix at 40..43, body 44..63 and 0..9
    std::vector<octet> data = Pattern(30, 3);
    ASSERT_EQ(0, ring.Write(data.data(), 30));

    std::vector<octet> out(65536, 0);
    uint32_t uiLength = 0;
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    ASSERT_EQ(30u, uiLength);
    EXPECT_EQ(0, std::memcmp(data.data(), out.data(), 30));
}

TEST(ReceiveBuffer_wrap, RecordEndingExactlyAtTheEndRestartsAtZero) {
    ReceiveBuffer ring(64);
    MoveIndicesTo(ring, 32);
    std::vector<octet> first = Pattern(28, 1);   // 32..63
    std::vector<octet> second = Pattern(10, 9);  // starts at 0
    ASSERT_EQ(0, ring.Write(first.data(), 28));
    ASSERT_EQ(0, ring.Write(second.data(), 10));

    std::vector<octet> out(65536, 0);
    uint32_t uiLength = 0;
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    ASSERT_EQ(28u, uiLength);
    EXPECT_EQ(0, std::memcmp(first.data(), out.data(), 28));
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    ASSERT_EQ(10u, uiLength);
    EXPECT_EQ(0, std::memcmp(second.data(), out.data(), 10));
}

TEST(ReceiveBuffer_room, RefusedAtExactlyLengthPlusFourFree) {
    LogCapture log;
    ReceiveBuffer ring(64);
    ring.SetDomainId(0x10007);
    std::vector<octet> data = Pattern(60, 0);

    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(data.data(), 60));  // 64 free == 60 + 4
    EXPECT_EQ(64u, ring.GetAvailableLength());
    EXPECT_EQ(0, ring.Write(data.data(), 59));  // 64 > 59 + 4
    EXPECT_EQ(1u, ring.GetAvailableLength());

    std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("[ReceiveBuffer::Write] uiAvailableLength = 64 and uiLength = 60", lines[0]);
    EXPECT_EQ(0x10007, log.Keys()[0]);
}

TEST(ReceiveBuffer_room, FullRingKeepsStoredRecords) {
    ReceiveBuffer ring(64);
    std::vector<octet> a = Pattern(20, 1);
    std::vector<octet> b = Pattern(20, 2);
    ASSERT_EQ(0, ring.Write(a.data(), 20));
    ASSERT_EQ(0, ring.Write(b.data(), 20));
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(a.data(), 12));  // 16 free, not > 16
    EXPECT_EQ(0, ring.Write(a.data(), 11));

    std::vector<octet> out(65536);
    uint32_t uiLength = 0;
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    EXPECT_EQ(0, std::memcmp(a.data(), out.data(), 20));
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    EXPECT_EQ(0, std::memcmp(b.data(), out.data(), 20));
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    EXPECT_EQ(11u, uiLength);
}

TEST(ReceiveBuffer_room, HugeLengthDoesNotWrapTheRoomTest) {
    ReceiveBuffer ring(64);
    octet byte = 0;
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(&byte, 0xFFFFFFFFu));
    EXPECT_EQ(RETCODE_BUFFER_FULL, ring.Write(&byte, 0xFFFFFFFDu));
    EXPECT_EQ(64u, ring.GetAvailableLength());
}

TEST(ReceiveBuffer_read, EmptyRingTimesOutAfterAboutOneSecondSilently) {
    LogCapture log;
    ReceiveBuffer ring(64);
    std::vector<octet> out(65536);
    uint32_t uiLength = 1234;
    Clock::time_point start = Clock::now();
    EXPECT_EQ(1, ring.Read(out.data(), uiLength));
    long long llElapsed = ElapsedMs(start);
    EXPECT_GE(llElapsed, 950);
    EXPECT_LE(llElapsed, 1500);
    EXPECT_EQ(1234u, uiLength);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(ReceiveBuffer_read, ZeroLengthRecordIsARecord) {
    ReceiveBuffer ring(64);
    ASSERT_EQ(0, ring.Write(nullptr, 0));
    EXPECT_EQ(60u, ring.GetAvailableLength());
    std::vector<octet> out(65536);
    uint32_t uiLength = 99;
    Clock::time_point start = Clock::now();
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    EXPECT_LT(ElapsedMs(start), 500);
    EXPECT_EQ(0u, uiLength);
}

TEST(ReceiveBuffer_read, LongRecordIsCutAtTheDestinationSize) {
    ReceiveBuffer ring(256);
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
    // The rest of the long record is skipped, not taken for the next one.
    ASSERT_EQ(0, ring.Read(out.data(), uiLength, 64));
    EXPECT_EQ(8u, uiLength);
    EXPECT_EQ(0, std::memcmp(next.data(), out.data(), 8));
}

TEST(ReceiveBuffer_order, ManyRecordsComeBackInOrderAcrossWraps) {
    // Records of varying size keep the indices drifting over the end of a
    // small ring, so every split of prefix and body occurs.
    ReceiveBuffer ring(1000);
    std::vector<octet> out(65536);
    uint32_t uiNextToRead = 0;
    uint32_t uiNextToWrite = 0;
    for (int iRound = 0; iRound < 400; ++iRound) {
        for (int k = 0; k < 3; ++k) {
            uint32_t uiSize = 1 + (uiNextToWrite * 37) % 200;
            std::vector<octet> data = Pattern(uiSize, static_cast<octet>(uiNextToWrite));
            std::memcpy(data.data(), &uiNextToWrite, uiSize >= 4 ? 4 : 0);
            if (ring.Write(data.data(), uiSize) != 0) break;
            ++uiNextToWrite;
        }
        for (int k = 0; k < 2 && uiNextToRead < uiNextToWrite; ++k) {
            uint32_t uiLength = 0;
            ASSERT_EQ(0, ring.Read(out.data(), uiLength));
            uint32_t uiSize = 1 + (uiNextToRead * 37) % 200;
            ASSERT_EQ(uiSize, uiLength) << "record " << uiNextToRead;
            std::vector<octet> data = Pattern(uiSize, static_cast<octet>(uiNextToRead));
            std::memcpy(data.data(), &uiNextToRead, uiSize >= 4 ? 4 : 0);
            ASSERT_EQ(0, std::memcmp(data.data(), out.data(), uiSize)) << "record " << uiNextToRead;
            ++uiNextToRead;
        }
    }
    while (uiNextToRead < uiNextToWrite) {
        uint32_t uiLength = 0;
        ASSERT_EQ(0, ring.Read(out.data(), uiLength));
        ASSERT_EQ(1 + (uiNextToRead * 37) % 200, uiLength);
        ++uiNextToRead;
    }
    EXPECT_GT(uiNextToWrite, 500u);
    EXPECT_EQ(1000u, ring.GetAvailableLength());
}

TEST(ReceiveBuffer_gate, WaitingReaderIsWokenByAWrite) {
    ReceiveBuffer ring(4096);
    std::atomic<int> result(-1);
    std::atomic<uint32_t> length(0);
    std::atomic<long long> waitedMs(-1);
    std::thread reader([&] {
        std::vector<octet> out(65536);
        uint32_t uiLength = 0;
        Clock::time_point start = Clock::now();
        result = ring.Read(out.data(), uiLength);
        waitedMs = ElapsedMs(start);
        length = uiLength;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    std::vector<octet> data = Pattern(33, 4);
    ASSERT_EQ(0, ring.Write(data.data(), 33));
    reader.join();
    EXPECT_EQ(0, result.load());
    EXPECT_EQ(33u, length.load());
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
                // Retry a bounded number of times when the reader lags.
                int iTries = 0;
                while (ring.Write(reinterpret_cast<octet*>(auiRecord), sizeof(auiRecord)) != 0) {
                    if (++iTries > 5000) {
                        ++refused;
                        break;
                    }
                    std::this_thread::yield();
                }
            }
        });
    }
    std::vector<int> nextPerWriter(kWriters, 0);
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
        // Each writer's records arrive in its own order.
        EXPECT_EQ(static_cast<uint32_t>(nextPerWriter[auiRecord[0]]), auiRecord[1]);
        nextPerWriter[auiRecord[0]] = static_cast<int>(auiRecord[1]) + 1;
        ++iReceived;
    }
    for (std::thread& t : writers) t.join();
    EXPECT_EQ(0, refused.load());
    EXPECT_EQ(kWriters * kPerWriter, iReceived);
    EXPECT_EQ(64u * 1024u, ring.GetAvailableLength());
}

TEST(ReceiveBuffer, DefaultCapacityIsFiftyMebibytes) {
    ReceiveBuffer ring;
    EXPECT_EQ(52428800u, ring.GetLength());
    EXPECT_EQ(52428800u, ring.GetAvailableLength());
    std::vector<octet> data = Pattern(64512, 8);
    ASSERT_EQ(0, ring.Write(data.data(), 64512));
    std::vector<octet> out(65536);
    uint32_t uiLength = 0;
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    EXPECT_EQ(64512u, uiLength);
    EXPECT_EQ(0, std::memcmp(data.data(), out.data(), 64512));
}

// Wake: the stop's early end of a reader's wait.
TEST(ReceiveBuffer_wake, WaitingReaderReturnsNothingAtOnceAndSilently) {
    LogCapture log;
    ReceiveBuffer ring(64);
    std::atomic<int> result(-1);
    std::atomic<long long> waitedMs(-1);
    std::vector<octet> out(65536, 0xAB);
    uint32_t uiLength = 1234;
    std::thread reader([&] {
        Clock::time_point start = Clock::now();
        result = ring.Read(out.data(), uiLength);
        waitedMs = ElapsedMs(start);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // inside the wait by now
    ring.Wake();
    reader.join();
    EXPECT_EQ(1, result.load());
    EXPECT_GE(waitedMs.load(), 50);
    EXPECT_LT(waitedMs.load(), 200);
    // Nothing read: length and destination untouched, the ring still empty.
    EXPECT_EQ(1234u, uiLength);
    EXPECT_EQ(0xAB, out[0]);
    EXPECT_EQ(0xAB, out[3]);
    EXPECT_EQ(64u, ring.GetAvailableLength());
    // No "[ReceiveBuffer::Read] ..." line: a wake is not an empty-ring fault.
    EXPECT_TRUE(log.Lines().empty());
}

TEST(ReceiveBuffer_wake, WakeBeforeTheReadIsNotLostAndIsUsedOnce) {
    LogCapture log;
    ReceiveBuffer ring(64);
    ring.Wake();
    ring.Wake();  // the gate holds one token: the second wake adds nothing
    std::vector<octet> out(65536);
    uint32_t uiLength = 0;
    Clock::time_point start = Clock::now();
    EXPECT_EQ(1, ring.Read(out.data(), uiLength));
    EXPECT_LT(ElapsedMs(start), 200);
    // The gate is closed again: the next read waits its full second.
    start = Clock::now();
    EXPECT_EQ(1, ring.Read(out.data(), uiLength));
    EXPECT_GE(ElapsedMs(start), 950);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(ReceiveBuffer_wake, RecordsWaitingAtTheWakeAreStillReadInOrder) {
    LogCapture log;
    ReceiveBuffer ring(256);
    std::vector<octet> a = Pattern(10, 1);
    std::vector<octet> b = Pattern(20, 2);
    ASSERT_EQ(0, ring.Write(a.data(), 10));
    ASSERT_EQ(0, ring.Write(b.data(), 20));
    ring.Wake();  // the gate is open already: the post is refused and harmless

    std::vector<octet> out(65536);
    uint32_t uiLength = 0;
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    ASSERT_EQ(10u, uiLength);
    EXPECT_EQ(0, std::memcmp(a.data(), out.data(), 10));
    ASSERT_EQ(0, ring.Read(out.data(), uiLength));
    ASSERT_EQ(20u, uiLength);
    EXPECT_EQ(0, std::memcmp(b.data(), out.data(), 20));
    // The wake was spent with the records; an empty ring times out as before.
    Clock::time_point start = Clock::now();
    EXPECT_EQ(1, ring.Read(out.data(), uiLength));
    EXPECT_GE(ElapsedMs(start), 950);
    EXPECT_EQ(256u, ring.GetAvailableLength());
    EXPECT_TRUE(log.Lines().empty());
}

// Every line of every class, for the process loop's stop lines.
struct StopLines {
    std::mutex mutex;
    std::vector<std::pair<std::string, int>> lines;

    static void Observe(void* context, int, const char* text, size_t length, int code) {
        StopLines* self = static_cast<StopLines*>(context);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->lines.emplace_back(std::string(text, length), code);
    }
};

TEST(ReceiveBuffer_wake, ProcessLoopStopsWithinMillisecondsWithItsUsualLines) {
    StopLines log;
    SetLogObserver(&StopLines::Observe, &log);
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
    SetLogObserver(nullptr, nullptr);

    EXPECT_TRUE(processor.IsStopped());
    EXPECT_FALSE(processor.IsRunning());
    EXPECT_LT(llStopMs, 200);
    EXPECT_EQ("Stop Process Thread .. \n", strOut);
    // Exactly the four stop lines, in their order: the woken read logged nothing.
    std::vector<std::pair<std::string, int>> expected;
    for (int iCode : {DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO})
        expected.emplace_back("Stop Process Thread Sucess", iCode);
    std::lock_guard<std::mutex> lock(log.mutex);
    EXPECT_EQ(expected, log.lines);
}
