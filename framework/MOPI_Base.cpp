#include "framework/MOPI_Base.h"

#include "framework/PlatformFactsStore.h"

MOPI_Base::MOPI_Base() : m_home(CurrentFacts()->homeDirectory) {}
