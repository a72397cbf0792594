// Process-wide owner of the per-participant log managers. WriteDDSLog is called
// from every thread; it only queues, the file work belongs to each manager's thread.
#ifndef MORVODDS_DDSLOGMANAGEMENTFACTORY_H
#define MORVODDS_DDSLOGMANAGEMENTFACTORY_H

#include <cstddef>
#include <string>

#include "BasicTypes.h"

class DDSLogManagement;

// Log classes; the low nibble carries modifiers (+1 payload as hex, +2 line feed).
const int DDSLOG_MATCH = 4160;
const int DDSLOG_DOMAIN_RELEASE = 4176;
const int DDSLOG_RECV = 4192;
const int DDSLOG_WRITE = 4208;
const int DDSLOG_ERROR = 4224;
const int DDSLOG_INFO = 4240;

class DDSLogManagementFactory {
public:
    static DDSLogManagementFactory* GetInstance();
    ~DDSLogManagementFactory();

    DDSLogManagement* CreateDDSManagement(int key);
    int RemoveDDSManagement(int key);

    // 0 when queued, 1 when no manager exists for the key.
    static int WriteDDSLog(int key, char* text, size_t length, int code, GUID_t guid);

    bool GetUseDDSLogFlag(int key);
    bool IsQueryTopic(int key, const std::string& topic);
    bool IsReadALLTopic(int key, const std::string& topic);
    bool IsReadTopic(int key, const std::string& topic);
    bool IsWriteALLTopic(int key, const std::string& topic);
    bool IsWriteTopic(int key, const std::string& topic);

    static void EntityToString(EntityId_t id, std::string& out);
    static void GuidPrefixToString(octet prefix[12], std::string& out);

private:
    DDSLogManagementFactory();
    DDSLogManagementFactory(const DDSLogManagementFactory&) = delete;
    DDSLogManagementFactory& operator=(const DDSLogManagementFactory&) = delete;

    static DDSLogManagementFactory* m_pInstance;
};

#endif
