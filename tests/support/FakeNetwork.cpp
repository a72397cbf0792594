#include "FakeNetwork.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "core/NetCard.h"
#include "dcps/DomainParticipantImpl.h"
#include "messages/MessageTransmitter.h"
#include "messages/ReceiveBuffer.h"

namespace {

typedef std::chrono::steady_clock Clock;

class FakeTransmitter;

struct Datagram {
    Locator_t destination;
    std::vector<octet> bytes;
};

// The network's state, behind one lock. Deliveries write into the receivers' rings under
// it, so a transmitter never goes away while a datagram is on its way in.
struct Hub {
    std::mutex mutex;
    std::condition_variable wake;  // the delay thread's
    std::list<FakeTransmitter*> members;
    std::vector<FakeNetwork::Rule> rules;
    std::mt19937 rng;
    FakeNetwork::Counts counts;
    std::multimap<Clock::time_point, Datagram> delayed;
    std::map<uint32_t, std::pair<Clock::time_point, Datagram>> held;  // REORDER, by port
    std::thread delayThread;
    bool bRunning = false;

    void Send(const Locator_t& destination, const octet* pMessage, uint32_t uiLength);
    void Deliver(const Datagram& datagram);
    void DelayLoop();
};

Hub& TheHub() {
    static Hub* pHub = new Hub();  // lives to the end of the process, as participants may
    return *pHub;
}

class FakeTransmitter : public MessageTransmitter {
public:
    explicit FakeTransmitter(ReceiveBuffer* pBuffer) : MessageTransmitter(pBuffer), m_bWoken(false) {
        std::lock_guard<std::mutex> lock(TheHub().mutex);
        TheHub().members.push_back(this);
    }
    ~FakeTransmitter() override {
        std::lock_guard<std::mutex> lock(TheHub().mutex);
        TheHub().members.remove(this);
    }

    int SendAddrAdd(Locator_t) override { return 0; }
    int MessageSend(const std::list<Locator_t>& sources, const std::list<Locator_t>& destinations,
                    const octet* pMessage, uint32_t uiLength) override {
        for (const Locator_t& source : sources)
            for (const Locator_t& destination : destinations)
                MessageSend(source, destination, pMessage, uiLength);
        return 0;
    }
    int MessageSend(Locator_t, Locator_t destination, const octet* pMessage, uint32_t uiLength) override {
        TheHub().Send(destination, pMessage, uiLength);
        return 0;
    }
    int MessageSend(const Locator_t* pSource, const Locator_t* pDestination, const octet* pMessage,
                    uint32_t uiLength) override {
        return MessageSend(*pSource, *pDestination, pMessage, uiLength);
    }
    // Datagrams arrive in the ring from the senders' threads: the receive loop only waits.
    int ReceiveMessage() override {
        std::unique_lock<std::mutex> lock(m_WakeMutex);
        m_WakeCondition.wait_for(lock, std::chrono::seconds(1), [this] { return m_bWoken; });
        m_bWoken = false;
        return 0;
    }
    int ReceiveAddrAdd(Locator_t locator) override {
        std::lock_guard<std::mutex> lock(TheHub().mutex);
        m_Receive.push_back(locator);
        return 0;
    }
    int ReceiveAddrRemove(Locator_t locator) override {
        std::lock_guard<std::mutex> lock(TheHub().mutex);
        m_Receive.remove(locator);
        return 0;
    }

    // Under the hub's lock.
    // Ports compare as the 16 bits a socket keeps of them: the port formulas pass 65535 for
    // large participant ids, and both ends truncate alike.
    bool Listens(const Locator_t& destination, bool bMulticast) const {
        for (const Locator_t& locator : m_Receive)
            if (uint16_t(locator.port) == uint16_t(destination.port) &&
                (!bMulticast || locator.GetIPv4() == destination.GetIPv4()))
                return true;
        return false;
    }
    void Receive(const std::vector<octet>& bytes) {
        m_pReceiveBuffer->Write(bytes.data(), uint32_t(bytes.size()));
    }

protected:
    void WakeReceive() override {
        std::lock_guard<std::mutex> lock(m_WakeMutex);
        m_bWoken = true;
        m_WakeCondition.notify_all();
    }

private:
    std::list<Locator_t> m_Receive;  // under the hub's lock
    std::mutex m_WakeMutex;
    std::condition_variable m_WakeCondition;
    bool m_bWoken;
};

void Hub::Send(const Locator_t& destination, const octet* pMessage, uint32_t uiLength) {
    std::lock_guard<std::mutex> lock(mutex);
    ++counts.sent;
    Datagram datagram{destination, std::vector<octet>(pMessage, pMessage + uiLength)};
    for (FakeNetwork::Rule& rule : rules) {
        if (rule.iTimes == 0 || (rule.uiPort != 0 && uint16_t(rule.uiPort) != uint16_t(destination.port)))
            continue;
        if (rule.iKind >= 0 && !FakeNetwork::HoldsKind(pMessage, uiLength, rule.iKind)) continue;
        if (rule.dChance < 1.0 && std::uniform_real_distribution<double>(0.0, 1.0)(rng) >= rule.dChance)
            continue;
        if (rule.iTimes > 0) --rule.iTimes;
        const Clock::time_point due = Clock::now() + std::chrono::milliseconds(rule.uiDelayMs);
        switch (rule.action) {
            case FakeNetwork::DROP:
                ++counts.dropped;
                return;
            case FakeNetwork::DUPLICATE:
                ++counts.duplicated;
                Deliver(datagram);
                break;
            case FakeNetwork::DELAY:
                ++counts.delayed;
                delayed.emplace(due, std::move(datagram));
                wake.notify_all();
                return;
            case FakeNetwork::REORDER: {
                ++counts.delayed;
                auto it = held.find(uint16_t(destination.port));
                if (it != held.end()) delayed.emplace(it->second.first, std::move(it->second.second));
                held[uint16_t(destination.port)] = std::make_pair(due, std::move(datagram));
                wake.notify_all();
                return;
            }
        }
        break;
    }
    Deliver(datagram);
    // A datagram held for reordering follows the next one to its port.
    auto it = held.find(uint16_t(destination.port));
    if (it != held.end()) {
        Deliver(it->second.second);
        held.erase(it);
    }
}

void Hub::Deliver(const Datagram& datagram) {
    // Multicast reaches every member of the group on the port; unicast the one listener
    // of the port, as a port shared with SO_REUSEADDR delivers unicast once.
    const bool bMulticast = (datagram.destination.GetIPv4() >> 28) == 0xE;
    for (FakeTransmitter* pMember : members) {
        if (!pMember->Listens(datagram.destination, bMulticast)) continue;
        pMember->Receive(datagram.bytes);
        ++counts.delivered;
        if (!bMulticast) return;
    }
}

void Hub::DelayLoop() {
    std::unique_lock<std::mutex> lock(mutex);
    while (bRunning) {
        const Clock::time_point now = Clock::now();
        while (!delayed.empty() && delayed.begin()->first <= now) {
            Deliver(delayed.begin()->second);
            delayed.erase(delayed.begin());
        }
        for (auto it = held.begin(); it != held.end();) {
            if (it->second.first > now) {
                ++it;
                continue;
            }
            Deliver(it->second.second);
            it = held.erase(it);
        }
        wake.wait_for(lock, std::chrono::milliseconds(5));
    }
}

int LoopbackCard(std::vector<netCard>& out) {
    out.push_back(netCard{"lo", {"127.0.0.1"}, {0x7F000001u}});
    return 0;
}

}  // namespace

void FakeNetwork::Install(uint32_t uiSeed) {
    Uninstall();
    Hub& hub = TheHub();
    {
        std::lock_guard<std::mutex> lock(hub.mutex);
        hub.rules.clear();
        hub.counts = Counts();
        hub.rng.seed(uiSeed);
        hub.bRunning = true;
    }
    hub.delayThread = std::thread([&hub] { hub.DelayLoop(); });
    SetNetCardSource(&LoopbackCard);
    DomainParticipantImpl::SetTransmitterFactory(&FakeNetwork::MakeTransmitter);
}

void FakeNetwork::Uninstall() {
    DomainParticipantImpl::SetTransmitterFactory(nullptr);
    SetNetCardSource(nullptr);
    Hub& hub = TheHub();
    {
        std::lock_guard<std::mutex> lock(hub.mutex);
        hub.bRunning = false;
        hub.wake.notify_all();
    }
    if (hub.delayThread.joinable()) hub.delayThread.join();
    Flush();
}

void FakeNetwork::AddRule(const Rule& rule) {
    std::lock_guard<std::mutex> lock(TheHub().mutex);
    TheHub().rules.push_back(rule);
}

void FakeNetwork::ClearRules() {
    std::lock_guard<std::mutex> lock(TheHub().mutex);
    TheHub().rules.clear();
}

FakeNetwork::Counts FakeNetwork::GetCounts() {
    std::lock_guard<std::mutex> lock(TheHub().mutex);
    return TheHub().counts;
}

void FakeNetwork::Flush() {
    Hub& hub = TheHub();
    std::lock_guard<std::mutex> lock(hub.mutex);
    for (auto& entry : hub.delayed) hub.Deliver(entry.second);
    hub.delayed.clear();
    for (auto& entry : hub.held) hub.Deliver(entry.second.second);
    hub.held.clear();
}

MessageTransmitter* FakeNetwork::MakeTransmitter(ReceiveBuffer* pReceiveBuffer, int) {
    return new FakeTransmitter(pReceiveBuffer);
}

bool FakeNetwork::HoldsKind(const octet* pMessage, uint32_t uiLength, int iKind) {
    uint32_t uiPos = 20;  // behind the message header
    while (uiPos + 4 <= uiLength) {
        if (pMessage[uiPos] == iKind) return true;
        const bool bLittle = (pMessage[uiPos + 1] & 1) != 0;
        const uint32_t uiNext = bLittle ? uint32_t(pMessage[uiPos + 2]) | uint32_t(pMessage[uiPos + 3]) << 8
                                        : uint32_t(pMessage[uiPos + 2]) << 8 | uint32_t(pMessage[uiPos + 3]);
        if (uiNext == 0) break;
        uiPos += 4 + uiNext;
    }
    return false;
}
