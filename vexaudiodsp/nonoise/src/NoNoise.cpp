#include "vexaudiodsp/nonoise/NoNoise.h"

#include <algorithm>
#include <cstddef>

namespace dsp {
namespace nonoise {

namespace {

std::size_t Count(int n) { return n > 0 ? static_cast<std::size_t>(n) : 0; }

double** NewCurves(int channels, int size) {
  double** curves = new double*[Count(channels)];
  for (int c = 0; c < channels; ++c) curves[c] = new double[Count(size)]();
  return curves;
}

void DeleteCurves(double**& curves, int channels) {
  if (curves == nullptr) return;
  for (int c = 0; c < channels; ++c) delete[] curves[c];
  delete[] curves;
  curves = nullptr;
}

void CopyScalars(const NONOISE* from, NONOISE* to) {
  to->levelPosition = from->levelPosition;
  to->auxCode = from->auxCode;
  to->fftSize = from->fftSize;
  to->snapshotLimit = from->snapshotLimit;
  to->overlap = from->overlap;
  to->auxInt = from->auxInt;
  to->channelCount = from->channelCount;
  to->snapshotCount = from->snapshotCount;
  to->thresholdDb = from->thresholdDb;
  to->exponent = from->exponent;
  to->mode = from->mode;
  to->flagA = from->flagA;
  to->flagB = from->flagB;
  to->flagC = from->flagC;
  to->reductionDb = from->reductionDb;
  to->smoothingPercent = from->smoothingPercent;
}

// Scalars only: a target holding arrays keeps the channel count and size
// they were made for, or FreeArrays would later walk the wrong shape.
void CopyScalarsKeepingShape(const NONOISE* from, NONOISE* to) {
  const std::int16_t channels = to->channelCount;
  const std::int16_t size = to->fftSize;
  const bool shaped = to->channelMin != nullptr || to->minCurve != nullptr || to->binCurve != nullptr;
  CopyScalars(from, to);
  if (shaped) {
    to->channelCount = channels;
    to->fftSize = size;
  }
}

// Copies channel `src` of `from` into channel `dst` of `to` (both with
// arrays of the same size).
void CopyChannel(const NONOISE* from, int src, NONOISE* to, int dst) {
  const std::size_t n = Count(from->fftSize);
  to->channelMin[dst] = from->channelMin[src];
  to->channelMax[dst] = from->channelMax[src];
  std::copy(from->minCurve[src], from->minCurve[src] + n, to->minCurve[dst]);
  std::copy(from->maxCurve[src], from->maxCurve[src] + n, to->maxCurve[dst]);
  std::copy(from->averageCurve[src], from->averageCurve[src] + n, to->averageCurve[dst]);
}

}  // namespace

void SetDefaultParameter(NONOISE* param) {
  if (param == nullptr) return;
  const NONOISE defaults;
  CopyScalars(&defaults, param);
}

bool HasArrays(const NONOISE* param) {
  return param != nullptr && param->channelCount > 0 && param->fftSize > 1 && param->channelMin != nullptr &&
         param->channelMax != nullptr && param->minCurve != nullptr && param->maxCurve != nullptr &&
         param->averageCurve != nullptr && param->binCurve != nullptr;
}

bool AllocateArrays(NONOISE* param) {
  if (param == nullptr) return false;
  FreeArrays(param);
  const int channels = param->channelCount;
  const int size = param->fftSize;
  if (channels < 1 || size < 2) return false;
  param->channelMin = new double[Count(channels)]();
  param->channelMax = new double[Count(channels)]();
  param->minCurve = NewCurves(channels, size);
  param->maxCurve = NewCurves(channels, size);
  param->averageCurve = NewCurves(channels, size);
  param->binCurve = new float[Count(size)]();
  return true;
}

// The arrays were made for the channel count the record had then; callers
// change channelCount only through AllocateArrays and the copies, which free
// first.
void FreeArrays(NONOISE* param) {
  if (param == nullptr) return;
  const int channels = param->channelCount;
  delete[] param->channelMin;
  delete[] param->channelMax;
  param->channelMin = nullptr;
  param->channelMax = nullptr;
  DeleteCurves(param->minCurve, channels);
  DeleteCurves(param->maxCurve, channels);
  DeleteCurves(param->averageCurve, channels);
  delete[] param->binCurve;
  param->binCurve = nullptr;
}

void CopyNoNoise(const NONOISE* from, NONOISE* to, bool withArrays) {
  if (from == nullptr || to == nullptr || from == to) return;
  if (!withArrays) {
    CopyScalarsKeepingShape(from, to);
    return;
  }
  FreeArrays(to);
  CopyScalars(from, to);
  if (!HasArrays(from) || !AllocateArrays(to)) return;
  for (int c = 0; c < from->channelCount; ++c) CopyChannel(from, c, to, c);
  std::copy(from->binCurve, from->binCurve + Count(from->fftSize), to->binCurve);
}

NONOISE* CloneNoNoise(const NONOISE* from) {
  auto* clone = new NONOISE();
  if (from != nullptr) CopyNoNoise(from, clone, true);
  return clone;
}

void DeleteNoNoise(NONOISE* param) {
  if (param == nullptr) return;
  FreeArrays(param);
  delete param;
}

void CopyMultiChannelNoNoiseToSingleChannelNoNoise(const NONOISE* from, NONOISE* to, int channel, bool withArrays) {
  if (from == nullptr || to == nullptr || from == to) return;
  if (!withArrays) {
    NONOISE single;
    CopyScalars(from, &single);
    single.channelCount = 1;
    CopyScalarsKeepingShape(&single, to);
    return;
  }
  FreeArrays(to);
  CopyScalars(from, to);
  to->channelCount = 1;
  if (!AllocateArrays(to)) return;
  if (HasArrays(from) && channel >= 0 && channel < from->channelCount) CopyChannel(from, channel, to, 0);
  if (from->binCurve != nullptr) std::copy(from->binCurve, from->binCurve + Count(from->fftSize), to->binCurve);
}

}  // namespace nonoise
}  // namespace dsp
