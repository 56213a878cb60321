#pragma once

/// Marks what the framework libraries offer to host and plug-in; everything else stays hidden.
#define MO_EXPORT __attribute__((visibility("default")))
