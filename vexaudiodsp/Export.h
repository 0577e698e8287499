#pragma once

#include "vexcore/Export.h"

// Public classes and free functions of libvexaudiodsp carry this mark; all
// other symbols stay hidden.
#define VEXAUDIODSP_API VEX_API
