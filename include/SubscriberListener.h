// SubscriberListener lives with the other listener bases.
#include "DDSListener.h"
