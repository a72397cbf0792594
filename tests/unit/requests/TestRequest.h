// Request stand-in for scheduler tests: records each execution (label, time)
// in a shared journal and its own destruction, and answers with a chosen
// result, optionally after a delay. Also a tick clock set by hand.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "core/SystemClock.h"
#include "requests/Request.h"

struct RequestJournal {
    std::mutex mutex;
    std::vector<int> order;  // labels in execution order
    std::vector<std::chrono::steady_clock::time_point> times;
    std::atomic<int> executed{0}, destroyed{0}, inExecute{0};  // inExecute: running right now
    std::vector<int> Order() {
        std::lock_guard<std::mutex> lock(mutex);
        return order;
    }
};

// Of the entity with key {0, 0, entityKey}.
class TestRequest : public Request {
public:
    TestRequest(RequestJournal* pJournal, int iLabel, const char* szType, octet entityKey,
                Time_t nextTime = Time_t(0, 0))
        : Request(szType, EntityId_t{{0x00, 0x00, entityKey}, 0x02}, nullptr, nullptr, Time_t(0, 0),
                  nextTime),
          m_pJournal(pJournal),
          m_iLabel(iLabel) {}
    ~TestRequest() override { ++m_pJournal->destroyed; }

    uint32_t Execute() override {
        ++m_pJournal->inExecute;
        const int iRun = ++m_iRuns;
        std::unique_lock<std::mutex> lock(m_pJournal->mutex);
        m_pJournal->order.push_back(m_iLabel);
        m_pJournal->times.push_back(std::chrono::steady_clock::now());
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(m_iExecuteMs));
        ++m_pJournal->executed;
        --m_pJournal->inExecute;
        return m_iFinishAtRun != 0 && iRun >= m_iFinishAtRun ? REQUEST_EXECUTE_FINISHED : m_uiResult;
    }

    std::atomic<int> m_iRuns{0};
    uint32_t m_uiResult = REQUEST_EXECUTE_OK;
    int m_iFinishAtRun = 0;  // answer REQUEST_EXECUTE_FINISHED from this run on; 0: never
    int m_iExecuteMs = 0;    // time spent in Execute
    RequestJournal* const m_pJournal;
    const int m_iLabel;
};

// Millisecond tick count set by hand while installed.
struct ManualTickClock {
    static void Install(uint32_t uiTicks) {
        Set(uiTicks);
        SystemClock::SetTickCountSource([] { return s_ticks.load(); });
    }
    static void Uninstall() { SystemClock::SetTickCountSource(nullptr); }
    static void Set(uint32_t uiTicks) { s_ticks.store(uiTicks); }
    static inline std::atomic<uint32_t> s_ticks{0};
};
