#include "TypeSupport.h"

TypeSupport::~TypeSupport() {}

TypeCode* TypeSupport::GetTypeCode() {
    return nullptr;
}
