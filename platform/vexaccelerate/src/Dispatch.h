#pragma once

// Hot kernels are compiled twice on x86-64, for AVX2 and for baseline SSE2,
// and the loader picks one at start-up through an ifunc resolver. That
// resolver runs before ThreadSanitizer's runtime is up, and TSan's
// instrumentation of it crashes the process, so TSan builds keep one version.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define VEX_KERNEL __attribute__((target_clones("avx2", "default"), noinline))
#else
#define VEX_KERNEL __attribute__((noinline))
#endif
