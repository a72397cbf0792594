#include "rtps/RTPSEntity.h"

RTPSEntity::RTPSEntity(const GUID_t& guidValue) : guid(guidValue) {}

RTPSEntity::~RTPSEntity() {}
