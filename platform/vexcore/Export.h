#pragma once

// Symbols of the suite's libraries are hidden unless marked; everything a host
// may call carries VEX_API so it is exported from libvexaudiodsp.so.
#define VEX_API __attribute__((visibility("default")))
