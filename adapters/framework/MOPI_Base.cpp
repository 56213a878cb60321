#include "adapters/framework/MOPI_Base.h"

#include "adapters/framework/PlatformFactsStore.h"

MOPI_Base::MOPI_Base() : m_home(CurrentFacts()->homeDirectory) {}
