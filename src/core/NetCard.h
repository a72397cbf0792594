// Lookup of the running network adapters and their IPv4 addresses. Called once
// per participant from the creating thread; takes no lock.
#pragma once

#include <string>
#include <vector>

struct netCard {
    std::string strName;                     // display name of the adapter
    std::vector<std::string> IPAddstrVec;    // dotted addresses, in the system's order
    std::vector<unsigned int> IPAddressVec;  // the same addresses, host order
};

// Appends one record per running adapter (up and running) that has an IPv4
// address, loopback included, in the system's order. Prints each address with
// its adapter name on stdout. Returns 0, or 1 when the list is unavailable.
int GetNetCardInfo(std::vector<netCard>& out);

// Test seam: GetNetCardInfo calls pSource instead; nullptr restores the system's.
typedef int (*net_card_source)(std::vector<netCard>& out);
void SetNetCardSource(net_card_source pSource);
