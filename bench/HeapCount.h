#pragma once

#include <cstddef>

/// How often the process's threads have called operator new so far.
size_t HeapAllocations();
