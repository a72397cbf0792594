// Root of the protocol-level objects: the participant and its endpoints. Holds
// the GUID only; no lock, set once at construction.
#pragma once

#include "BasicTypes.h"

class RTPSEntity {
public:
    explicit RTPSEntity(const GUID_t& guidValue);
    virtual ~RTPSEntity();

protected:
    GUID_t guid;
};
