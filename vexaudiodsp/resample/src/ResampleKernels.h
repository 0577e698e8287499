#pragma once

#include "vexaudiodsp/resample/Resample.h"

namespace dsp {
namespace resamplekernels {

// Dot products of one phase row with `count` windows that use it: output j
// is the sum over the row of row[i] * window[j * inStride + i], written to
// out[j * outStride]. `rowLength` is a multiple of 16 for float rows and of
// 8 for double rows; the row is 64-byte aligned, the windows need not be.
// The sum of one output never depends on `count`, on the other outputs or
// on the window's alignment, so any split of a stream into blocks gives
// identical samples. Up to a vector of samples before and after each window
// may be read and ignored: they must be readable.
using RowsFloat = void (*)(const float* row, int rowLength, const float* window, int inStride, int count, float* out,
                           int outStride);
using RowsDouble = void (*)(const double* row, int rowLength, const double* window, int inStride, int count, float* out,
                            int outStride);
// One dot product of `n` doubles, n a multiple of 8.
using DotDouble = double (*)(const double* a, const double* b, int n);

struct Kernels {
  RowsFloat rowsFloat;
  RowsDouble rowsDouble;
  DotDouble dot;
};

/// The kernels of one instruction set (the portable ones when `set` is not
/// compiled in).
Kernels Get(Resample::InstructionSet set);
/// Whether this CPU runs `set`.
bool Supported(Resample::InstructionSet set);

}  // namespace resamplekernels
}  // namespace dsp
