#include "vexaudiodsp/dither/Dither.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

#include "vexaccelerate/Denormals.h"
#include "vexaudiodsp/dither/WhiteNoise.h"
#include "vexaudiodsp/utils/IppFFT.h"

namespace dsp {

namespace {

constexpr double kReferenceRate = 44100.0;
constexpr int kBins = Dither::kAnalysisSize / 2 + 1;
constexpr int kMaxTaps = 128;
constexpr int kCustomTaps = 64;
constexpr double kPi = 3.141592653589793;

struct CurveRow {
  int id;
  int count;
  int shiftFrom;
  int taps;
  double points[2 * 21];
};

// Frequency (of the 44.1 kHz Nyquist) : level pairs.
const CurveRow kCurves[] = {
    {2, 10, 4, 32, {0.0,    0.63, 0.0408, 0.66, 0.1316, 0.98, 0.2153, 1.0, 0.2993, 0.98,
                    0.5146, 0.62, 0.7097, 0.0,  0.8958, 0.0,  0.9998, 0.0, 1.0,    0.0}},
    {8, 15, 5, 64, {0.0,    1.0, 0.1814, 1.0, 0.365,  1.0, 0.4104, 1.0, 0.458,  1.0,
                    0.5012, 1.0, 0.5442, 1.0, 0.7029, 1.0, 0.7937, 0.0, 0.8391, 0.0,
                    0.8774, 0.0, 0.907,  0.0, 0.9478, 0.0, 0.9998, 0.0, 1.0,    0.0}},
    {9, 17, 5, 96, {0.0,    1.0, 0.1814, 1.0, 0.365,  1.0, 0.458,  1.0, 0.542,  1.0, 0.5715, 1.0,
                    0.6167, 1.0, 0.6848, 1.0, 0.7234, 1.0, 0.7437, 0.0, 0.7778, 0.0, 0.8345, 0.0,
                    0.864,  0.0, 0.8889, 0.0, 0.9297, 0.0, 0.9998, 0.0, 1.0,    0.0}},
    {3, 14, 6, 64, {0.0,    0.66, 0.0227, 0.68, 0.0522, 0.92, 0.0974, 0.99, 0.1724, 1.0, 0.4285, 1.0, 0.5601, 1.0,
                    0.5896, 1.0,  0.6985, 0.98, 0.7981, 0.0,  0.8594, 0.0,  0.9275, 0.0, 0.9998, 0.0, 1.0,    0.0}},
    {4, 17, 6, 64, {0.0,    0.72, 0.0249, 0.77, 0.0408, 0.93, 0.0974, 0.99, 0.1724, 1.0,  0.2358, 1.0,
                    0.304,  1.0,  0.3491, 0.99, 0.449,  0.97, 0.5669, 0.92, 0.7437, 0.77, 0.7915, 0.0,
                    0.8345, 0.0,  0.864,  0.0,  0.9275, 0.0,  0.9998, 0.0,  1.0,    0.0}},
    {10, 10, 4, 48, {0.0,    0.86, 0.0703, 0.87, 0.1292, 0.96, 0.2517, 1.0, 0.3923, 1.0,
                     0.6416, 0.73, 0.7393, 0.0,  0.8005, 0.0,  0.9998, 0.0, 1.0,    0.0}},
    {5, 17, 6, 64, {0.0,    0.8, 0.0271, 0.81, 0.0522, 0.9,  0.0908, 0.97, 0.127,  1.0,  0.1565, 1.0,
                    0.1995, 1.0, 0.2654, 0.99, 0.4626, 0.91, 0.687,  0.75, 0.7437, 0.36, 0.7822, 0.0,
                    0.8345, 0.0, 0.8752, 0.0,  0.9343, 0.0,  0.9998, 0.0,  1.0,    0.0}},
    {7, 21, 11, 64, {0.0,    0.8,  0.0271, 0.81, 0.0522, 0.9,  0.0908, 0.97, 0.1475, 1.0,  0.2178, 1.0,  0.2788, 0.98,
                     0.356,  0.89, 0.4104, 0.78, 0.4807, 0.76, 0.5215, 0.76, 0.5691, 0.76, 0.6099, 0.76, 0.6848, 0.76,
                     0.7212, 0.47, 0.771,  0.0,  0.8345, 0.0,  0.8752, 0.0,  0.9138, 0.0,  0.9998, 0.0,  1.0,    0.0}},
    {6, 21, 10, 64, {0.0,    0.8,  0.0271, 0.81, 0.0522, 0.9,  0.0884, 1.0,  0.1475, 1.0,  0.2178, 1.0,  0.2856, 1.0,
                     0.3584, 0.92, 0.4104, 0.86, 0.4785, 0.86, 0.5193, 0.86, 0.5691, 0.86, 0.6304, 0.86, 0.6917, 0.7,
                     0.7371, 0.4,  0.7869, 0.0,  0.8481, 0.0,  0.8752, 0.0,  0.9207, 0.0,  0.9998, 0.0,  1.0,    0.0}},
};

const CurveRow* FindCurve(int id) {
  for (const CurveRow& row : kCurves) {
    if (row.id == id) return &row;
  }
  return nullptr;
}

// Weight of bin k in the mean over the whole 256-point circle: the bins
// between DC and Nyquist stand for two.
double BinWeight(int k) { return (k == 0 || k == kBins - 1) ? 1.0 : 2.0; }

double CircleMean(const double* values) {
  double sum = 0.0;
  for (int k = 0; k < kBins; ++k) sum += BinWeight(k) * values[k];
  return sum / Dither::kAnalysisSize;
}

// Piecewise cubic Bezier through every point: the inner control points sit
// at thirds of each segment in frequency, so the curve is a function of
// frequency, and their levels follow tangents limited after Fritsch and
// Carlson, so the curve is monotone wherever the points are and never leaves
// the range they span.
void SampleBezier(const double* points, int count, double* levels) {
  double slope[Dither::kMaxCurvePoints] = {};
  double tangent[Dither::kMaxCurvePoints] = {};
  for (int i = 0; i + 1 < count; ++i) {
    const double dx = points[2 * i + 2] - points[2 * i];
    slope[i] = dx > 0.0 ? (points[2 * i + 3] - points[2 * i + 1]) / dx : 0.0;
  }
  tangent[0] = slope[0];
  tangent[count - 1] = slope[count - 2];
  for (int i = 1; i + 1 < count; ++i) {
    const double a = slope[i - 1], b = slope[i];
    tangent[i] = (a * b <= 0.0)
                     ? 0.0
                     : std::copysign(std::min({0.5 * std::fabs(a + b), 3.0 * std::fabs(a), 3.0 * std::fabs(b)}), a);
  }
  int segment = 0;
  for (int k = 0; k < kBins; ++k) {
    const double x = static_cast<double>(k) / (kBins - 1);
    while (segment + 2 < count && x > points[2 * segment + 2]) ++segment;
    const double x0 = points[2 * segment], x1 = points[2 * segment + 2];
    const double y0 = points[2 * segment + 1], y1 = points[2 * segment + 3];
    const double h = x1 - x0;
    double level;
    if (h <= 0.0 || x <= x0) {
      level = x <= x0 ? y0 : y1;
    } else if (x >= x1) {
      level = y1;
    } else {
      const double u = (x - x0) / h, v = 1.0 - u;
      const double c1 = y0 + tangent[segment] * h / 3.0;
      const double c2 = y1 - tangent[segment + 1] * h / 3.0;
      level = v * v * v * y0 + 3.0 * v * v * u * c1 + 3.0 * v * u * u * c2 + u * u * u * y1;
    }
    levels[k] = std::min(1.0, std::max(0.0, level));
  }
}

// Frequency (0...1 of Nyquist) where the curve, coming down from its high
// part, last falls through `level`; 1 when it never does.
double FallingCrossing(const double* levels, double level) {
  for (int k = kBins - 2; k >= 0; --k) {
    if (levels[k] >= level && levels[k + 1] < level) {
      const double frac = (levels[k] - level) / (levels[k] - levels[k + 1]);
      return (k + frac) / (kBins - 1);
    }
  }
  return 1.0;
}

}  // namespace

struct DitherStream {
  DitherSettings settings;
  int initialized = 0;
  double halfStepOffset = 0.0;
  double scale = 1.0;
  double scaledAmount = 1.0;
  double previousRandom = 0.0;
  // Errors, newest first, stored twice so the window is always contiguous.
  double history[2 * kMaxTaps] = {};
  int historyPos = 0;
  double taps[kMaxTaps] = {};
  int numTaps = 0;
  WhiteNoise noise{1u};
  IppFFT designEngine;
  IppFFT32R analysisEngine;
  int analysisSize = Dither::kAnalysisSize;
  int lastFrame = 0;
  // Samples of the fade-in already done.
  int fadedIn = 0;

  // What the current filter was designed from.
  int designedPdf = -1;
  int designedShaping = -1;
  int designedAdaptive = -1;
  double designedStrength = -1.0;
  unsigned designedCurve = ~0u;

  // The curve's log-magnitude target (dB per bin) and the adaptive state.
  double baseDb[kBins] = {};
  float analysis[Dither::kAnalysisSize + 2] = {};
  int analysisFill = 0;
  double re[Dither::kAnalysisSize] = {};
  double im[Dither::kAnalysisSize] = {};

  void ClearState(unsigned seed) {
    noise.Seed(seed);
    previousRandom = 0.0;
    std::fill(std::begin(history), std::end(history), 0.0);
    historyPos = 0;
    analysisFill = 0;
    lastFrame = 0;
    fadedIn = 0;
  }

  // Minimum-phase error-feedback filter whose noise gain in dB per bin is
  // `db` (minus its circle mean), by the real cepstrum (Oppenheim and
  // Schafer, Discrete-Time Signal Processing, 12.8).
  void Design(const double* db) {
    const int n = Dither::kAnalysisSize;
    const double mean = CircleMean(db);
    constexpr double kLnPerDb = 0.11512925464970229;  // ln(10) / 20
    for (int k = 0; k < kBins; ++k) {
      re[k] = (db[k] - mean) * kLnPerDb;
      im[k] = 0.0;
    }
    for (int k = kBins; k < n; ++k) {
      re[k] = re[n - k];
      im[k] = 0.0;
    }
    designEngine.FFT(re, im, -1);
    // Folding the even cepstrum onto positive quefrencies gives the
    // minimum-phase log spectrum.
    for (int q = 0; q < n; ++q) {
      const double c = re[q] / n;
      re[q] = (q == 0 || q == n / 2) ? c : (q < n / 2 ? 2.0 * c : 0.0);
      im[q] = 0.0;
    }
    designEngine.FFT(re, im, 1);
    for (int k = 0; k < n; ++k) {
      const double mag = std::exp(re[k]);
      const double phase = im[k];
      re[k] = mag * std::cos(phase);
      im[k] = mag * std::sin(phase);
    }
    designEngine.FFT(re, im, -1);
    const double h0 = re[0];
    const int count = numTaps;
    const int taperStart = count - count / 4;
    for (int k = 1; k <= count; ++k) {
      double w = 1.0;
      if (k > taperStart) w = 0.5 * (1.0 + std::cos(kPi * (k - taperStart) / (count - taperStart + 1)));
      taps[k - 1] = h0 != 0.0 ? w * re[k] / h0 : 0.0;
    }
  }

  // Adaptive masking: the frame just analysed raises the allowed noise where
  // the programme exceeds the flat dither floor by more than the margin.
  void AnalyseAndRedesign() {
    const int n = Dither::kAnalysisSize;
    double windowPower = 0.0;
    for (int i = 0; i < n; ++i) {
      const double w = 0.5 - 0.5 * std::cos(2.0 * kPi * i / n);
      analysis[i] = static_cast<float>(analysis[i] * w * 32768.0);
      windowPower += w * w;
    }
    analysisEngine.FFT(analysis, 1);
    const double step = 1.0 / scale;
    const double floorDb = 10.0 * std::log10(step * step / 4.0);
    double db[kBins];
    for (int k = 0; k < kBins; ++k) {
      const double p = (static_cast<double>(analysis[2 * k]) * analysis[2 * k] +
                        static_cast<double>(analysis[2 * k + 1]) * analysis[2 * k + 1]) /
                       windowPower;
      const double excess = 10.0 * std::log10(p + 1e-30) - floorDb - settings.adaptiveMargin;
      db[k] = baseDb[k] + std::min(std::max(excess, 0.0), std::max(0.0, settings.adaptiveRange));
    }
    Design(db);
    analysisFill = 0;
  }
};

Dither::Dither() : streams_(new DitherStream[kMaxChannels]) {
  for (int i = 0; i < kMaxChannels; ++i) streams_[i].ClearState(seed_ + static_cast<unsigned>(i));
}

Dither::~Dither() {
  Deinitialize();
  delete[] streams_;
}

Dither::Dither(const Dither& other) : Dither() { *this = other; }

Dither& Dither::operator=(const Dither& other) {
  if (this == &other) return *this;
  Deinitialize();
  settings_ = other.settings_;
  settings_.initialized = 0;
  seed_ = other.seed_;
  curveVersion_ = other.curveVersion_;
  if (other.settings_.initialized) {
    Initialize();
    for (int i = 0; i < settings_.numChannels; ++i) {
      DitherStream& to = streams_[i];
      const DitherStream& from = other.streams_[i];
      to.noise = from.noise;
      to.previousRandom = from.previousRandom;
      std::copy(std::begin(from.history), std::end(from.history), std::begin(to.history));
      to.historyPos = from.historyPos;
      std::copy(std::begin(from.taps), std::end(from.taps), std::begin(to.taps));
      std::copy(std::begin(from.analysis), std::end(from.analysis), std::begin(to.analysis));
      to.analysisFill = from.analysisFill;
      to.lastFrame = from.lastFrame;
      to.fadedIn = from.fadedIn;
    }
  }
  return *this;
}

int Dither::SetNumChannels(int n) {
  if (settings_.initialized) return settings_.numChannels;
  settings_.numChannels = std::max(1, std::min(n, kMaxChannels));
  return settings_.numChannels;
}

void Dither::SetSampleRate(float rate) {
  if (!(rate > 0.0f) || !std::isfinite(rate)) return;
  settings_.sampleRate = rate;
  ++curveVersion_;
  SearchCrossover();
  ApplyStrengthMode();
  UpdateStreams(false);
}

void Dither::SetStrength(double strength) {
  if (!std::isfinite(strength)) return;
  settings_.strength = strength;
  settings_.strengthMode = 1;
  UpdateStreams(false);
}

void Dither::SetDitherToBits(int bits) {
  settings_.bits = std::max(1, std::min(bits, 32));
  UpdateStreams(false);
}

void Dither::SetDitherAmount(double amount) {
  if (!std::isfinite(amount)) return;
  settings_.ditherAmount = std::max(0.0, std::min(amount, 16.0));
  UpdateStreams(false);
}

void Dither::SetSymmetric(int symmetric) {
  settings_.symmetric = symmetric;
  UpdateStreams(false);
}

void Dither::SetDitheringType(int pdf, int shaping, int adaptive) {
  if (pdf != -1) settings_.pdf = pdf;
  if (shaping != -1) {
    if (shaping != settings_.shaping) ++curveVersion_;
    settings_.shaping = shaping;
  }
  if (adaptive != -1) settings_.adaptive = adaptive;
  SearchCrossover();
  ApplyStrengthMode();
  UpdateStreams(false);
}

void Dither::SetCrossoverHz(double hz) {
  if (!std::isfinite(hz) || hz < 0.0) return;
  settings_.crossoverHz = hz;
  ++curveVersion_;
  SearchCrossover();
  UpdateStreams(false);
}

void Dither::SetBoostBy(double dB) {
  if (!std::isfinite(dB)) return;
  settings_.boostBy = dB;
  settings_.strengthMode = 2;
  ApplyStrengthMode();
  UpdateStreams(false);
}

void Dither::SetCutBy(double dB) {
  if (!std::isfinite(dB)) return;
  settings_.cutBy = dB;
  settings_.strengthMode = 3;
  ApplyStrengthMode();
  UpdateStreams(false);
}

bool Dither::SetCustomShape(int count, const double* points) {
  if (count < 2 || count > kMaxCurvePoints || points == nullptr) return false;
  for (int i = 0; i < 2 * count; ++i) {
    if (!std::isfinite(points[i])) return false;
  }
  double sorted[2 * kMaxCurvePoints];
  int order[kMaxCurvePoints];
  for (int i = 0; i < count; ++i) order[i] = i;
  std::stable_sort(order, order + count, [points](int a, int b) { return points[2 * a] < points[2 * b]; });
  for (int i = 0; i < count; ++i) {
    sorted[2 * i] = std::min(1.0, std::max(0.0, points[2 * order[i]]));
    sorted[2 * i + 1] = std::min(1.0, std::max(0.0, points[2 * order[i] + 1]));
  }
  settings_.customShapeCount = count;
  settings_.customPointCount = count;
  std::copy(sorted, sorted + 2 * count, settings_.customShape);
  std::copy(sorted, sorted + 2 * count, settings_.customPoints);
  ++curveVersion_;
  SearchCrossover();
  UpdateStreams(false);
  return true;
}

void Dither::SetAdaptiveParams(double margin, double range) {
  if (!std::isfinite(margin) || !std::isfinite(range)) return;
  settings_.adaptiveMargin = margin;
  settings_.adaptiveRange = range;
  UpdateStreams(false);
}

int Dither::GetCustomShape(double** points) {
  if (points != nullptr) *points = settings_.customShapeCount > 0 ? settings_.customShape : nullptr;
  return settings_.customShapeCount;
}

bool Dither::GetBuiltInCurve(int id, const double** points, int* count, int* shiftFrom, int* taps) {
  const CurveRow* row = FindCurve(id);
  if (row == nullptr) return false;
  if (points != nullptr) *points = row->points;
  if (count != nullptr) *count = row->count;
  if (shiftFrom != nullptr) *shiftFrom = row->shiftFrom;
  if (taps != nullptr) *taps = row->taps;
  return true;
}

void Dither::AdjustFilterToSampleRate(double shift, double* points, int count, int shiftFrom, double sampleRate) {
  if (points == nullptr || count < 2 || !(sampleRate > 0.0)) return;
  const double scale = kReferenceRate / sampleRate;
  for (int i = 1; i <= count - 2; ++i) {
    const double ceiling = 1.0 - static_cast<double>(count - 1 - i) / 4096.0;
    points[2 * i] = std::min(ceiling, std::max(points[2 * (i - 1)] + 1.0 / 8192.0, points[2 * i] * scale));
  }
  if (sampleRate > 48000.0) {
    int edge = -1;
    for (int i = count - 2; i >= 1; --i) {
      if (points[2 * i + 1] >= 0.5) {
        edge = i;
        break;
      }
    }
    if (edge >= 0) {
      const double pull = std::min(0.2, (sampleRate - 48000.0) / 48000.0 * 0.12);
      for (int i = edge + 1; i <= count - 2; ++i) points[2 * i] = 1.0 - (1.0 - points[2 * i]) * (1.0 - pull);
    }
  }
  double s = shift;
  if (s == 0.0) {
    if (sampleRate <= kReferenceRate) return;
    s = (sampleRate - kReferenceRate) / 51900.0 * 0.245;
  }
  if (s == 0.0 || shiftFrom > count - 2) return;
  for (int i = std::max(0, shiftFrom); i <= count - 2; ++i) points[2 * i] += s * scale;
}

bool Dither::CurveLevels(double shift, double* levels) const {
  double points[2 * kMaxCurvePoints];
  int count = 0;
  int shiftFrom = 0;
  if (const CurveRow* row = FindCurve(settings_.shaping)) {
    count = row->count;
    shiftFrom = row->shiftFrom;
    std::copy(row->points, row->points + 2 * count, points);
  } else if (settings_.shaping == kShapingCustom && settings_.customPointCount >= 2) {
    count = settings_.customPointCount;
    // A custom curve is the user's own: only the rate mapping applies to it,
    // with the shift reaching every inner point.
    shiftFrom = 1;
    std::copy(settings_.customPoints, settings_.customPoints + 2 * count, points);
  } else {
    return false;
  }
  AdjustFilterToSampleRate(shift, points, count, shiftFrom, settings_.sampleRate);
  for (int i = 0; i < count; ++i) {
    const double previous = i > 0 ? points[2 * (i - 1)] : 0.0;
    points[2 * i] = std::min(1.0, std::max(previous, points[2 * i]));
  }
  SampleBezier(points, count, levels);
  return true;
}

double Dither::ComputeOffsetValue(double shift, double* result) const {
  double levels[kBins];
  if (!CurveLevels(shift, levels)) {
    if (result != nullptr) *result = 0.0;
    return 0.0;
  }
  const double mean = CircleMean(levels);
  if (result != nullptr) {
    const double rate = settings_.sampleRate;
    const double target = settings_.crossoverHz / (0.5 * rate);
    // The shift moves points by shift * 44100 / rate of the band and the
    // search adds twice this value, so the edge lands on the target.
    *result = (target - FallingCrossing(levels, mean)) * rate / (2.0 * kReferenceRate);
  }
  return 0.5 - mean;
}

void Dither::ApplyStrengthMode() {
  if (FindCurve(settings_.shaping) == nullptr || settings_.strengthMode == 1) return;
  const double offset = ComputeOffsetValue(0.0, nullptr);
  if (settings_.strengthMode == 2 && 0.5 - offset > 1e-9) settings_.strength = settings_.boostBy / (0.5 - offset);
  if (settings_.strengthMode == 3 && 0.5 + offset > 1e-9) settings_.strength = settings_.cutBy / (0.5 + offset);
}

void Dither::SearchCrossover() {
  settings_.curveShift = 0.0;
  if (settings_.crossoverHz == 0.0) return;
  settings_.crossoverHz = std::max(settings_.crossoverHz, 0.18 * settings_.sampleRate);
  double correction = 0.0;
  ComputeOffsetValue(settings_.curveShift, &correction);
  for (int round = 0; round < 5 && std::fabs(correction) > 0.001; ++round) {
    settings_.curveShift += 2.0 * correction;
    ComputeOffsetValue(settings_.curveShift, &correction);
  }
}

void Dither::UpdateStreams(bool force) {
  const DitherSettings& s = settings_;
  const double scale = s.bits == 32 ? 65536.0 : std::ldexp(1.0, s.bits - 16);
  double levels[kBins];
  const bool curve = s.shaping == kShapingCustom || FindCurve(s.shaping) != nullptr;
  bool haveLevels = false;
  for (int i = 0; i < s.numChannels; ++i) {
    DitherStream& stream = streams_[i];
    stream.settings = s;
    stream.halfStepOffset = s.symmetric != 0 ? 0.0 : 0.5;
    stream.scale = scale;
    stream.scaledAmount = s.ditherAmount / scale;
    if (!stream.initialized) continue;
    const bool changed = force || stream.designedPdf != s.pdf || stream.designedShaping != s.shaping ||
                         stream.designedAdaptive != s.adaptive || stream.designedStrength != s.strength ||
                         stream.designedCurve != curveVersion_;
    if (!changed) continue;
    stream.designedPdf = s.pdf;
    stream.designedShaping = s.shaping;
    stream.designedAdaptive = s.adaptive;
    stream.designedStrength = s.strength;
    stream.designedCurve = curveVersion_;
    if (curve && !haveLevels) haveLevels = CurveLevels(s.curveShift, levels);
    if (!curve || !haveLevels) {
      stream.numTaps = 0;
      continue;
    }
    const CurveRow* row = FindCurve(s.shaping);
    stream.numTaps = row != nullptr ? row->taps : kCustomTaps;
    const double mean = CircleMean(levels);
    for (int k = 0; k < kBins; ++k) stream.baseDb[k] = s.strength * (mean - levels[k]);
    stream.Design(stream.baseDb);
  }
}

void Dither::Initialize() {
  if (settings_.initialized) return;
  for (int i = 0; i < settings_.numChannels; ++i) {
    DitherStream& stream = streams_[i];
    stream.designEngine.Init(kAnalysisSize);
    stream.analysisEngine.Init(kAnalysisSize);
    stream.initialized = 1;
    stream.ClearState(seed_ + static_cast<unsigned>(i));
  }
  settings_.initialized = 1;
  settings_.lastFrame = 0;
  UpdateStreams(true);
}

void Dither::Deinitialize() {
  if (streams_ == nullptr) return;
  for (int i = 0; i < kMaxChannels; ++i) {
    DitherStream& stream = streams_[i];
    if (!stream.initialized) continue;
    stream.designEngine.DeInit();
    stream.analysisEngine.DeInit();
    stream.initialized = 0;
    stream.numTaps = 0;
  }
  settings_.initialized = 0;
}

void Dither::SetLastFrame() {
  settings_.lastFrame = 1;
  if (!settings_.initialized) return;
  for (int i = 0; i < settings_.numChannels; ++i) streams_[i].lastFrame = 1;
}

void Dither::Reset() {
  settings_.lastFrame = 0;
  if (!settings_.initialized) return;
  for (int i = 0; i < settings_.numChannels; ++i) {
    DitherStream& stream = streams_[i];
    stream.ClearState(seed_ + static_cast<unsigned>(i));
    if (stream.numTaps > 0) stream.Design(stream.baseDb);
  }
}

int Dither::GetShapingFilter(int channel, const double** taps) const {
  if (channel < 0 || channel >= settings_.numChannels) return 0;
  if (taps != nullptr) *taps = streams_[channel].taps;
  return streams_[channel].numTaps;
}

namespace {

constexpr int kFade = 64;

// One stretch of samples of one stream with a fixed filter. Dither and
// feedback fade in over the stream's first kFade samples (`fadeInAt` of them
// done before this run, `fadeInLeft` still in it) and, from `fadeOutFrom`
// on, fade out over `fadeOutCount` samples, reaching zero on the last one.
void QuantiseRun(DitherStream& s, const float* in, float* out, int count, int fadeInAt, int fadeInLeft, int fadeOutFrom,
                 int fadeOutCount) {
  const int pdf = s.settings.pdf;
  const double amount = s.scaledAmount;
  const double scale = s.scale;
  const double step = 1.0 / scale;
  const double offset = 0.5 - s.halfStepOffset;
  const double low = -32768.0;
  const double high = 32768.0 - step;
  const int taps = s.numTaps;
  const double* const h = s.taps;
  double* const history = s.history;
  int pos = s.historyPos;
  double previous = s.previousRandom;
  WhiteNoise noise = s.noise;
  const double errorLimit = step;

  for (int i = 0; i < count; ++i) {
    double gain = 1.0;
    if (i < fadeInLeft) gain = static_cast<double>(fadeInAt + i) / kFade;
    if (i >= fadeOutFrom) gain = static_cast<double>(fadeOutFrom + fadeOutCount - 1 - i) / fadeOutCount;

    // Eight partial sums (tap counts are multiples of 8) let the compiler
    // vectorise the sum without reassociating it: a third of the time of
    // one running sum at 64 taps.
    double feedback = 0.0;
    if (taps > 0) {
      const double* e = history + pos;
      double acc[8] = {};
      for (int k = 0; k < taps; k += 8) {
        for (int j = 0; j < 8; ++j) acc[j] += h[k + j] * e[k + j];
      }
      feedback = ((acc[0] + acc[4]) + (acc[1] + acc[5])) + ((acc[2] + acc[6]) + (acc[3] + acc[7]));
    }
    double d;
    switch (pdf) {
      case kDitherRectangular:
        d = (noise.fRandom() - 0.5) * amount;
        break;
      case kDitherTriangular: {
        const double r1 = noise.fRandom();
        d = (r1 - 1.0 + noise.fRandom()) * amount;
        break;
      }
      case kDitherHighPassRectangular: {
        const double n = (noise.fRandom() - 0.5) * amount;
        d = n - previous;
        previous = n;
        break;
      }
      case kDitherGaussian:
        d = noise.fGaussian(amount);
        break;
      case kDitherHighPassGaussian: {
        const double g = noise.fGaussian(amount);
        d = g - previous;
        previous = g;
        break;
      }
      default:
        d = 0.0;
    }
    d *= gain;
    const double value = static_cast<double>(in[i]) * 32768.0 + gain * feedback;
    double q = std::floor((value + d) * scale + offset) * step;
    q = std::min(high, std::max(low, q));
    out[i] = static_cast<float>(q * 3.0517578125e-05);
    if (taps > 0) {
      const double limit = errorLimit + std::fabs(d);
      const double e = std::min(limit, std::max(-limit, q - value));
      pos = (pos == 0 ? taps : pos) - 1;
      history[pos] = e;
      history[pos + taps] = e;
    }
  }
  s.historyPos = pos;
  s.previousRandom = previous;
  s.noise = noise;
}

}  // namespace

int Dither::Process(float** in, float** out, int frames) {
  if (!settings_.initialized || in == nullptr || out == nullptr || frames <= 0) return 0;
  vexaccelerate::utility::ScopedFlushDenormals flush;
  const int fadeOut = std::min(kFade, frames) < 5 ? 0 : std::min(kFade, frames);
  for (int c = 0; c < settings_.numChannels; ++c) {
    DitherStream& s = streams_[c];
    if (in[c] == nullptr || out[c] == nullptr) continue;
    // The fade-in runs over the stream's first kFade samples whatever the
    // block sizes, so the output does not depend on how the host splits it.
    const int fadeInLeft = std::min(frames, kFade - s.fadedIn);
    const int fadeInDone = s.fadedIn;
    s.fadedIn += fadeInLeft;
    const int fadeOutFrom = s.lastFrame ? frames - fadeOut : frames;
    const bool adaptive = s.settings.adaptive == kAdaptiveMasking && s.numTaps > 0;
    int done = 0;
    while (done < frames) {
      int run = frames - done;
      if (adaptive) run = std::min(run, kAnalysisSize - s.analysisFill);
      if (adaptive) {
        std::copy(in[c] + done, in[c] + done + run, s.analysis + s.analysisFill);
        s.analysisFill += run;
      }
      QuantiseRun(s, in[c] + done, out[c] + done, run, fadeInDone + done, fadeInLeft - done, fadeOutFrom - done,
                  fadeOut);
      done += run;
      if (adaptive && s.analysisFill == kAnalysisSize) s.AnalyseAndRedesign();
    }
    if (s.lastFrame) s.lastFrame = 0;
  }
  settings_.lastFrame = 0;
  return frames;
}

}  // namespace dsp
