// What the host's own loops are compiled with.
#pragma once

// Loops are compiled once for any x86-64 and once for those with AVX2 and fused multiply-add; the program picks at
// start-up. Both give the same bits, since nothing is contracted or reassociated.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__CUDACC__) && __GNUC__ >= 12 && \
    !defined(__SANITIZE_ADDRESS__)
#define KERNEL_LOOP __attribute__((target_clones("default", "arch=x86-64-v3")))
#else
#define KERNEL_LOOP
#endif
