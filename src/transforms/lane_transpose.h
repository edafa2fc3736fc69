// The transposition of eight by eight values in registers, for the loops that bring rows into columns.
#pragma once

#include "transforms/wide_lanes.h"

/// Row i of eight becomes column i, in place.
INTO_LOOP void lane_transpose_block(Lane* rows) {
  Lane pairs[8];
  Lane quads[8];
#pragma GCC unroll 4
  for (int i = 0; i < 4; i++) {
    pairs[2 * i] = __builtin_shufflevector(rows[2 * i], rows[2 * i + 1], 0, 8, 1, 9, 4, 12, 5, 13);
    pairs[2 * i + 1] = __builtin_shufflevector(rows[2 * i], rows[2 * i + 1], 2, 10, 3, 11, 6, 14, 7, 15);
  }
#pragma GCC unroll 2
  for (int i = 0; i < 8; i += 4) {
#pragma GCC unroll 2
    for (int k = 0; k < 2; k++) {
      quads[i + 2 * k] = __builtin_shufflevector(pairs[i + k], pairs[i + 2 + k], 0, 1, 8, 9, 4, 5, 12, 13);
      quads[i + 2 * k + 1] = __builtin_shufflevector(pairs[i + k], pairs[i + 2 + k], 2, 3, 10, 11, 6, 7, 14, 15);
    }
  }
#pragma GCC unroll 4
  for (int k = 0; k < 4; k++) {
    rows[k] = __builtin_shufflevector(quads[k], quads[4 + k], 0, 1, 2, 3, 8, 9, 10, 11);
    rows[4 + k] = __builtin_shufflevector(quads[k], quads[4 + k], 4, 5, 6, 7, 12, 13, 14, 15);
  }
}
