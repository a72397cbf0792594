// Request stand-in for scheduler tests: records each execution (label, time,
// thread-safe) in a shared journal and its own destruction, and answers with a
// chosen result, optionally after a delay. Also a settable tick clock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "core/SystemClock.h"
#include "requests/Request.h"

struct RequestJournal {
    std::mutex mutex;
    std::vector<int> order;  // labels in execution order
    std::vector<std::chrono::steady_clock::time_point> times;
    std::atomic<int> executed{0};
    std::atomic<int> destroyed{0};
    std::atomic<int> inExecute{0};  // executions running right now

    std::vector<int> Order() {
        std::lock_guard<std::mutex> lock(mutex);
        return order;
    }
    std::vector<std::chrono::steady_clock::time_point> Times() {
        std::lock_guard<std::mutex> lock(mutex);
        return times;
    }
};

class TestRequest : public Request {
public:
    // The request form of the factory: (entity id, own arguments, processor,
    // transmitter, start time, next time).
    TestRequest(const EntityId_t& entityId, RequestJournal* pJournal, int iLabel, const char* szTypeName,
                MessageProcessor* pProcessor, MessageTransmitter* pTransmitter, const Time_t& startTime,
                const Time_t& nextTime)
        : Request(szTypeName, entityId, pProcessor, pTransmitter, startTime, nextTime),
          m_pJournal(pJournal),
          m_iLabel(iLabel) {}

    ~TestRequest() override { ++m_pJournal->destroyed; }

    uint32_t Execute() override {
        ++m_pJournal->inExecute;
        const int iRun = ++m_iRuns;
        {
            std::lock_guard<std::mutex> lock(m_pJournal->mutex);
            m_pJournal->order.push_back(m_iLabel);
            m_pJournal->times.push_back(std::chrono::steady_clock::now());
        }
        if (m_iExecuteMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(m_iExecuteMs));
        ++m_pJournal->executed;
        --m_pJournal->inExecute;
        if (m_iFinishAtRun != 0 && iRun >= m_iFinishAtRun) return REQUEST_EXECUTE_FINISHED;
        return m_uiResult;
    }

    int Runs() const { return m_iRuns.load(); }

    uint32_t m_uiResult = REQUEST_EXECUTE_OK;
    int m_iFinishAtRun = 0;  // answer REQUEST_EXECUTE_FINISHED from this run on; 0: never
    int m_iExecuteMs = 0;    // time spent in Execute

private:
    RequestJournal* m_pJournal;
    int m_iLabel;
    std::atomic<int> m_iRuns{0};
};

inline EntityId_t TestEntity(octet key) {
    return EntityId_t{{0x00, 0x00, key}, 0x02};
}

// Millisecond tick count that tests set by hand; installed with Install().
class ManualTickClock {
public:
    static void Install(uint32_t uiTicks) {
        s_ticks.store(uiTicks);
        SystemClock::SetTickCountSource(&Read);
    }
    static void Uninstall() { SystemClock::SetTickCountSource(nullptr); }
    static void Set(uint32_t uiTicks) { s_ticks.store(uiTicks); }

private:
    static uint32_t Read() { return s_ticks.load(); }
    static inline std::atomic<uint32_t> s_ticks{0};
};
