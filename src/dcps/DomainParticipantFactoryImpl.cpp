#include "dcps/DomainParticipantFactoryImpl.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "DDSLogManagementFactory.h"
#include "DomainParticipant.h"
#include "dcps/DomainParticipantImpl.h"

DomainParticipantFactoryImpl::DomainParticipantFactoryImpl() {}

DomainParticipantFactoryImpl::~DomainParticipantFactoryImpl() {
    m_Mutex.Lock();
    for (auto& entry : m_DomainParticipantImplList) {
        ParticipantList& participants = entry.second;
        for (auto it = participants.begin(); it != participants.end();) {
            delete *it;
            it = participants.erase(it);
        }
        participants.clear();
    }
    m_DomainParticipantImplList.clear();
    m_Mutex.Unlock();
}

DomainParticipant* DomainParticipantFactoryImpl::create_participant(int domain_id,
                                                                    const DomainParticipantQos& qos,
                                                                    DomainParticipantListener* listener,
                                                                    unsigned long mask) {
    (void)mask;
    // The whole stack starts in this constructor; it runs outside the lock so that
    // participants may be built in parallel. It cannot report a failure.
    DomainParticipantImpl* pParticipant = new (std::nothrow) DomainParticipantImpl(domain_id, qos, listener);
    if (pParticipant == nullptr) return nullptr;

    m_Mutex.Lock();
    m_DomainParticipantImplList[domain_id].push_back(pParticipant);
    m_Mutex.Unlock();
    return pParticipant->getFacade();
}

ReturnCode_t DomainParticipantFactoryImpl::delete_participant(DomainParticipantImpl* pParticipant) {
    const int iLogId = pParticipant->getLogId();
    const GUID_t guid = pParticipant->getParticipantGuid();

    m_Mutex.Lock();
    auto entry = m_DomainParticipantImplList.find(pParticipant->get_domain_id());
    if (entry == m_DomainParticipantImplList.end()) {
        char text[200];
        std::snprintf(text, sizeof(text),
                      "[DomainParticipantFactoryImpl::delete_participant] participant isnot exist");
        DDSLogManagementFactory::WriteDDSLog(iLogId, text, std::strlen(text), DDSLOG_INFO, guid);
        m_Mutex.Unlock();
        return RETCODE_NOT_EXIST;
    }

    ParticipantList& participants = entry->second;
    participants.remove(pParticipant);
    // Destroyed under the lock: other creations and deletions wait for the whole stack to stop.
    delete pParticipant;
    if (participants.empty()) m_DomainParticipantImplList.erase(entry);
    m_Mutex.Unlock();

    DDSLogManagementFactory* pLogFactory = DDSLogManagementFactory::GetInstance();
    if (pLogFactory != nullptr) pLogFactory->RemoveDDSManagement(iLogId);
    return RETCODE_OK;
}

DomainParticipant* DomainParticipantFactoryImpl::lookup_participant(int domain_id) {
    // Taken although a plain read would do: creations on other threads may be inserting.
    m_Mutex.Lock();
    auto entry = m_DomainParticipantImplList.find(domain_id);
    if (entry == m_DomainParticipantImplList.end() || entry->second.empty()) {
        m_Mutex.Unlock();
        char text[200];
        std::snprintf(text, sizeof(text), "[DomainParticipantFactoryImpl::lookup_participant] fail");
        DDSLogManagementFactory::WriteDDSLog(domain_id, text, std::strlen(text), DDSLOG_INFO, GUID_UNKNOWN);
        return nullptr;
    }
    DomainParticipant* pFacade = entry->second.front()->getFacade();
    m_Mutex.Unlock();
    return pFacade;
}

size_t DomainParticipantFactoryImpl::ParticipantCount(int domain_id) {
    m_Mutex.Lock();
    auto entry = m_DomainParticipantImplList.find(domain_id);
    size_t n = entry == m_DomainParticipantImplList.end() ? 0 : entry->second.size();
    m_Mutex.Unlock();
    return n;
}
