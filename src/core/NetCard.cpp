#include "core/NetCard.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>

namespace {
std::atomic<net_card_source> g_NetCardSource{nullptr};

int SystemNetCardInfo(std::vector<netCard>& out) {
    struct ifaddrs* pList = nullptr;
    if (getifaddrs(&pList) != 0) {
        printf("NetCard getifaddrs failed\n");
        return 1;
    }

    // Records made in this call; an adapter with several addresses appears
    // several times in the list and gets one record.
    const size_t firstNew = out.size();
    for (struct ifaddrs* pEntry = pList; pEntry != nullptr; pEntry = pEntry->ifa_next) {
        if (pEntry->ifa_addr == nullptr || pEntry->ifa_addr->sa_family != AF_INET ||
            pEntry->ifa_name == nullptr)
            continue;
        if ((pEntry->ifa_flags & IFF_UP) == 0 || (pEntry->ifa_flags & IFF_RUNNING) == 0) continue;

        const struct sockaddr_in* pAddress = reinterpret_cast<const struct sockaddr_in*>(pEntry->ifa_addr);
        char szAddress[INET_ADDRSTRLEN] = {0};
        if (inet_ntop(AF_INET, &pAddress->sin_addr, szAddress, sizeof(szAddress)) == nullptr) continue;

        netCard* pCard = nullptr;
        for (size_t i = firstNew; i < out.size(); ++i) {
            if (out[i].strName == pEntry->ifa_name) {
                pCard = &out[i];
                break;
            }
        }
        if (pCard == nullptr) {
            out.push_back(netCard());
            pCard = &out.back();
            pCard->strName = pEntry->ifa_name;
        }
        printf("NetCard %s : %s\n", pCard->strName.c_str(), szAddress);
        pCard->IPAddstrVec.push_back(szAddress);
        pCard->IPAddressVec.push_back(ntohl(pAddress->sin_addr.s_addr));
    }
    freeifaddrs(pList);
    return 0;
}
}  // namespace

int GetNetCardInfo(std::vector<netCard>& out) {
    const net_card_source pSource = g_NetCardSource.load();
    return pSource != nullptr ? pSource(out) : SystemNetCardInfo(out);
}

void SetNetCardSource(net_card_source pSource) {
    g_NetCardSource.store(pSource);
}
