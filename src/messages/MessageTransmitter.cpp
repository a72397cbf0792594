#include "messages/MessageTransmitter.h"

#include <cstdio>
#include <cstring>
#include <iostream>

#include "DDSLogManagementFactory.h"
#include "core/SystemClock.h"

MessageTransmitter::MessageTransmitter(ReceiveBuffer* pReceiveBuffer)
    : m_RunFlag(1), m_StoppedFlag(0), m_pReceiveBuffer(pReceiveBuffer), m_iLogKey(0) {}

MessageTransmitter::~MessageTransmitter() {}

void MessageTransmitter::Log(const char* szText, int iCode) const {
    char szLog[200];
    snprintf(szLog, sizeof(szLog), "%s", szText);
    DDSLogManagementFactory::WriteDDSLog(m_iLogKey, szLog, strlen(szLog), iCode, GUID_UNKNOWN);
}

void MessageTransmitter::RequestStop() {
    m_RunFlag.store(0);
    // Wakes the loop so a stop takes milliseconds, not a second.
    WakeReceive();
}

unsigned int MessageTransmitter::TransmitRun(void* pArgument) {
    MessageTransmitter* pTransmitter = static_cast<MessageTransmitter*>(pArgument);
    std::cout << "Create TransmitRun " << std::endl;

    while (pTransmitter->m_RunFlag.load() != 0) {
        // Failures of one pass are logged inside and not acted on here.
        // A pass that moved datagrams goes straight back to the sockets: a yield
        // there can park this thread for a whole scheduler slice beside a busy
        // thread of the same CPU, while the socket overflows. A pass that read
        // nothing (time-out, failure, no socket yet) still yields, so that a wait
        // failing at once cannot hold the CPU.
        if (pTransmitter->ReceiveMessage() != 0) SystemClock::SleepMs(0);
    }

    // Logged in four classes, so that whichever file one follows shows the
    // end of the thread.
    const int aiCodes[] = {DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO};
    for (int iCode : aiCodes) pTransmitter->Log("Stop Recv Thread Sucess", iCode);
    printf("Stop Recv Thread .. \n");
    fflush(stdout);
    SystemClock::SleepMs(1);
    // Last act: after this the owner may delete the transmitter.
    pTransmitter->m_StoppedFlag.store(1);
    return 0;
}
