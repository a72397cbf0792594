// Abstract transport of whole RTPS messages, and the receive thread's loop.
// Senders call MessageSend under the message lock; the receive thread runs
// TransmitRun; the owner sets up addresses and stops the loop by its flags.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>

#include "BasicTypes.h"

class ReceiveBuffer;

class MessageTransmitter {
public:
    explicit MessageTransmitter(ReceiveBuffer* pReceiveBuffer);
    virtual ~MessageTransmitter();

    MessageTransmitter(const MessageTransmitter&) = delete;
    MessageTransmitter& operator=(const MessageTransmitter&) = delete;

    // The slot order below is part of the design; keep it.
    virtual int SendAddrAdd(Locator_t locator) = 0;
    virtual int MessageSend(const std::list<Locator_t>& sourceList,
                            const std::list<Locator_t>& destinationList, const octet* pMessage,
                            uint32_t uiLength) = 0;
    virtual int MessageSend(Locator_t source, Locator_t destination, const octet* pMessage,
                            uint32_t uiLength) = 0;
    // Forwards to the pair above, for callers that hold the locators by address.
    virtual int MessageSend(const Locator_t* pSource, const Locator_t* pDestination, const octet* pMessage,
                            uint32_t uiLength) = 0;
    virtual int ReceiveMessage() = 0;
    virtual int ReceiveAddrAdd(Locator_t locator) = 0;
    virtual int ReceiveAddrRemove(Locator_t locator) = 0;

    // Receive thread entry for Thread::Start; the argument is the transmitter
    // as a MessageTransmitter* (convert a derived pointer before passing it).
    // Loops on ReceiveMessage until the run flag is cleared, then sets the
    // stopped flag as its last act. Returns 0. A pass with a result other than 0
    // (nothing read) is followed by a yield; a pass that returns 0 must have
    // waited or read, as the loop goes straight on.
    static unsigned int TransmitRun(void* pArgument);

    // Stop protocol: the owner clears the run flag, then polls the stopped flag.
    void SetRunFlag(bool bRun) { m_RunFlag.store(bRun ? 1 : 0); }
    // Clears the run flag and wakes the loop's wait (WakeReceive), so a stop
    // takes milliseconds, not a second.
    void RequestStop();
    uint8_t GetRunFlag() const { return m_RunFlag.load(); }
    uint8_t GetStoppedFlag() const { return m_StoppedFlag.load(); }

    ReceiveBuffer* GetReceiveBuffer() const { return m_pReceiveBuffer; }
    std::list<Locator_t>& GetLocalLocators() { return m_LocalLocators; }

    // Log key of the owning participant (its low 16 bits are the domain id).
    void SetLogKey(int iLogKey) { m_iLogKey = iLogKey; }
    int GetLogKey() const { return m_iLogKey; }

protected:
    void Log(const char* szText, int iCode) const;
    // Ends a wait of ReceiveMessage now, or the next one, early. Any thread. Kept
    // behind the slots above; a transport without a wake of its own keeps this
    // no-op and its loop still notices the flag at its next pass.
    virtual void WakeReceive() {}

    std::atomic<uint8_t> m_RunFlag;
    std::atomic<uint8_t> m_StoppedFlag;
    ReceiveBuffer* m_pReceiveBuffer;  // not owned
    std::list<Locator_t> m_LocalLocators;
    int m_iLogKey;
};
