#include "DDSLogManagementFactory.h"

#include <atomic>
#include <cstdio>
#include <mutex>

#include "log/LogObserver.h"

// The file logging itself arrives later; until then no manager exists, so every
// call answers "no manager" and every topic test is false.

namespace {
std::mutex g_observerMutex;
LogObserverFn g_observer = nullptr;
void* g_observerContext = nullptr;
}  // namespace

void SetLogObserver(LogObserverFn fn, void* context) {
    std::lock_guard<std::mutex> lock(g_observerMutex);
    g_observer = fn;
    g_observerContext = context;
}

DDSLogManagementFactory* DDSLogManagementFactory::m_pInstance = new DDSLogManagementFactory();

DDSLogManagementFactory::DDSLogManagementFactory() {}

DDSLogManagementFactory::~DDSLogManagementFactory() {
    if (m_pInstance == this) m_pInstance = nullptr;
}

DDSLogManagementFactory* DDSLogManagementFactory::GetInstance() {
    return m_pInstance;
}

DDSLogManagement* DDSLogManagementFactory::CreateDDSManagement(int key) {
    (void)key;
    return nullptr;
}

int DDSLogManagementFactory::RemoveDDSManagement(int key) {
    (void)key;
    return 0;
}

int DDSLogManagementFactory::WriteDDSLog(int key, char* text, size_t length, int code, GUID_t guid) {
    (void)guid;
    {
        std::lock_guard<std::mutex> lock(g_observerMutex);
        if (g_observer != nullptr && text != nullptr) g_observer(g_observerContext, key, text, length, code);
    }
    return 1;
}

bool DDSLogManagementFactory::GetUseDDSLogFlag(int key) {
    (void)key;
    return false;
}
bool DDSLogManagementFactory::IsQueryTopic(int key, const std::string& topic) {
    (void)key;
    (void)topic;
    return false;
}
bool DDSLogManagementFactory::IsReadALLTopic(int key, const std::string& topic) {
    (void)key;
    (void)topic;
    return false;
}
bool DDSLogManagementFactory::IsReadTopic(int key, const std::string& topic) {
    (void)key;
    (void)topic;
    return false;
}
bool DDSLogManagementFactory::IsWriteALLTopic(int key, const std::string& topic) {
    (void)key;
    (void)topic;
    return false;
}
bool DDSLogManagementFactory::IsWriteTopic(int key, const std::string& topic) {
    (void)key;
    (void)topic;
    return false;
}

void DDSLogManagementFactory::EntityToString(EntityId_t id, std::string& out) {
    // The formatted text is deliberately not copied out: callers get an empty string.
    char buf[16];
    std::snprintf(buf, sizeof(buf), "%02x.%02x.%02x.%02x", id.entityKey[0], id.entityKey[1], id.entityKey[2],
                  id.entityKind);
    out.clear();
}

void DDSLogManagementFactory::GuidPrefixToString(octet prefix[12], std::string& out) {
    char buf[8];
    out.clear();
    for (int i = 0; i < 11; ++i) {
        std::snprintf(buf, sizeof(buf), "%d.", prefix[i]);
        out += buf;
    }
    std::snprintf(buf, sizeof(buf), "%d", prefix[11]);
    out += buf;
}
