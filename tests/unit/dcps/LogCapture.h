// Test helper: collects every text handed to WriteDDSLog while it lives.
// The observer may run on any thread, so the record is guarded.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "log/LogObserver.h"

class LogCapture {
public:
    struct Entry {
        int key;
        std::string text;
        int code;
    };

    LogCapture() { SetLogObserver(&LogCapture::Observe, this); }
    ~LogCapture() { SetLogObserver(nullptr, nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Entry> Entries() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Entries;
    }
    // Entries whose text equals `text` exactly.
    std::vector<Entry> Find(const std::string& text) {
        std::vector<Entry> found;
        for (const Entry& e : Entries())
            if (e.text == text) found.push_back(e);
        return found;
    }
    size_t Count(const std::string& text) { return Find(text).size(); }

private:
    static void Observe(void* context, int key, const char* text, size_t length, int code) {
        LogCapture* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        self->m_Entries.push_back(Entry{key, std::string(text, length), code});
    }

    std::mutex m_Mutex;
    std::vector<Entry> m_Entries;
};
