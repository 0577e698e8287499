// The synthetic cabinet impulses of BoxModeler (see BoxModeler.h for the
// recipe). The tables below are the whole "data" of the 45 impulses.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include "vexaudiodsp/guitarsuite/BoxModeler.h"

namespace dsp {
namespace guitarsuite {
namespace boxmodeler {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct CabinetModel {
  const char* name;
  double lowCutHz;
  double bodyHz;
  double bodyDb;
  double breakupHz;
  double breakupDb;
  double breakup2Hz;
  double breakup2Db;
  double coneHz;
  double lengthMs;
  double ringMs;
};

// Small combos ring short and cut low end early; 4x12 and bass cabinets go
// deeper with a stronger body resonance; the cone roll-off sits between 3.5
// and 6 kHz, as for real guitar speakers.
constexpr CabinetModel kModels[BoxModeler::kNumModels] = {
    {"combo-1x8", 110.0, 180.0, 4.0, 1800.0, 5.0, 3200.0, 3.0, 4200.0, 25.0, 3.0},
    {"combo-1x10", 95.0, 150.0, 4.0, 2000.0, 4.0, 3500.0, 3.0, 4800.0, 30.0, 3.5},
    {"combo-1x12-open", 80.0, 120.0, 3.0, 2200.0, 5.0, 3800.0, 2.0, 5200.0, 35.0, 4.0},
    {"combo-1x12-closed", 75.0, 110.0, 5.0, 2400.0, 4.0, 4000.0, 3.0, 5000.0, 35.0, 4.5},
    {"combo-2x10", 85.0, 130.0, 4.0, 1900.0, 4.0, 3300.0, 4.0, 5000.0, 35.0, 4.0},
    {"combo-2x12-open", 75.0, 115.0, 3.0, 2500.0, 5.0, 4200.0, 3.0, 5500.0, 40.0, 4.5},
    {"british-2x12", 70.0, 105.0, 5.0, 2300.0, 6.0, 3600.0, 3.0, 5000.0, 40.0, 5.0},
    {"british-4x12", 65.0, 95.0, 6.0, 2600.0, 6.0, 3900.0, 4.0, 5200.0, 45.0, 6.0},
    {"vintage-4x12", 70.0, 100.0, 5.0, 2100.0, 5.0, 3400.0, 3.0, 4500.0, 45.0, 6.0},
    {"american-4x12", 60.0, 90.0, 6.0, 2800.0, 4.0, 4500.0, 3.0, 6000.0, 45.0, 5.5},
    {"tweed-4x10", 80.0, 125.0, 3.0, 1700.0, 5.0, 3000.0, 4.0, 4600.0, 40.0, 5.0},
    {"bass-1x15", 45.0, 70.0, 5.0, 1200.0, 3.0, 2500.0, 2.0, 3500.0, 50.0, 7.0},
    {"bass-8x10", 50.0, 80.0, 6.0, 1500.0, 3.0, 2800.0, 2.0, 4000.0, 55.0, 8.0},
    {"jazz-1x15", 50.0, 85.0, 4.0, 1400.0, 2.0, 2600.0, 1.0, 3800.0, 45.0, 6.0},
    {"boutique-1x12", 80.0, 115.0, 4.0, 2000.0, 4.0, 3100.0, 5.0, 5800.0, 38.0, 4.5},
};

constexpr const char* kMicNames[BoxModeler::kNumMicTypes] = {"on-axis", "off-axis", "room"};
constexpr double kRoomLengthScale = 1.3;
constexpr int kMaxSections = 9;
constexpr int kGridPoints = 512;

// One normalised biquad in direct form I (b0 b1 b2, a1 a2 over a0).
struct Section {
  double b0 = 1.0, b1 = 0.0, b2 = 0.0, a1 = 0.0, a2 = 0.0;
  double x1 = 0.0, x2 = 0.0, y1 = 0.0, y2 = 0.0;

  void Set(double nb0, double nb1, double nb2, double na0, double na1, double na2) {
    b0 = nb0 / na0;
    b1 = nb1 / na0;
    b2 = nb2 / na0;
    a1 = na1 / na0;
    a2 = na2 / na0;
  }
  double Run(double x) {
    const double y = b0 * x + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
    x2 = x1;
    x1 = x;
    y2 = y1;
    y1 = y;
    return y;
  }
};

// Audio EQ Cookbook designs (R. Bristow-Johnson); shelves with slope S = 1.
struct Design {
  double cosw, alpha;
  Design(double hz, double q, double fs) {
    const double w0 = 2.0 * kPi * std::min(hz, 0.45 * fs) / fs;
    cosw = std::cos(w0);
    alpha = std::sin(w0) / (2.0 * q);
  }
};

Section Lowpass(double hz, double q, double fs) {
  const Design d(hz, q, fs);
  Section s;
  s.Set((1 - d.cosw) / 2, 1 - d.cosw, (1 - d.cosw) / 2, 1 + d.alpha, -2 * d.cosw, 1 - d.alpha);
  return s;
}

Section Highpass(double hz, double q, double fs) {
  const Design d(hz, q, fs);
  Section s;
  s.Set((1 + d.cosw) / 2, -(1 + d.cosw), (1 + d.cosw) / 2, 1 + d.alpha, -2 * d.cosw, 1 - d.alpha);
  return s;
}

Section Peak(double hz, double q, double dB, double fs) {
  const Design d(hz, q, fs);
  const double a = std::pow(10.0, dB / 40.0);
  Section s;
  s.Set(1 + d.alpha * a, -2 * d.cosw, 1 - d.alpha * a, 1 + d.alpha / a, -2 * d.cosw, 1 - d.alpha / a);
  return s;
}

Section Shelf(bool high, double hz, double dB, double fs) {
  const Design d(hz, std::sqrt(0.5), fs);
  const double a = std::pow(10.0, dB / 40.0);
  const double r = 2.0 * std::sqrt(a) * d.alpha;
  const double c = d.cosw;
  const double sign = high ? 1.0 : -1.0;
  Section s;
  s.Set(a * ((a + 1) + sign * (a - 1) * c + r), -2 * sign * a * ((a - 1) + sign * (a + 1) * c),
        a * ((a + 1) + sign * (a - 1) * c - r), (a + 1) - sign * (a - 1) * c + r,
        2 * sign * ((a - 1) - sign * (a + 1) * c), (a + 1) - sign * (a - 1) * c - r);
  return s;
}

bool ValidRate(float sampleRate) { return std::isfinite(sampleRate) && sampleRate >= 1000.0f; }

}  // namespace

std::string BoxModeler::GetImpulseName(int model, int mic) {
  return "Model" + std::to_string(model) + ".dat" + std::to_string(mic);
}

const char* BoxModeler::GetModelName(int model) { return model >= 0 && model < kNumModels ? kModels[model].name : ""; }

const char* BoxModeler::GetMicName(int mic) { return mic >= 0 && mic < kNumMicTypes ? kMicNames[mic] : ""; }

int BoxModeler::GetImpulseLength(int model, int mic, float sampleRate) {
  if (model < 0 || model >= kNumModels || mic < 0 || mic >= kNumMicTypes || !ValidRate(sampleRate)) return 0;
  const double ms = kModels[model].lengthMs * (mic == 2 ? kRoomLengthScale : 1.0);
  return std::max(1, static_cast<int>(std::lround(ms * sampleRate / 1000.0)));
}

bool BoxModeler::GenerateImpulse(int model, int mic, float sampleRate, float* out) {
  const int length = GetImpulseLength(model, mic, sampleRate);
  if (length == 0 || out == nullptr) return false;
  const CabinetModel& m = kModels[model];
  const double fs = sampleRate;

  Section sections[kMaxSections];
  int count = 0;
  sections[count++] = Highpass(m.lowCutHz, std::sqrt(0.5), fs);
  sections[count++] = Peak(m.bodyHz, 1.2, m.bodyDb, fs);
  sections[count++] = Peak(m.breakupHz, 2.5, m.breakupDb, fs);
  sections[count++] = Peak(m.breakup2Hz, 3.0, m.breakup2Db, fs);
  double coneHz = m.coneHz;
  double ringMs = m.ringMs;
  if (mic == 0) {
    sections[count++] = Peak(5000.0, 1.5, 4.0, fs);
  } else if (mic == 1) {
    sections[count++] = Shelf(true, 2500.0, -6.0, fs);
    coneHz *= 0.85;
  } else {
    sections[count++] = Shelf(false, 150.0, 2.0, fs);
    coneHz *= 1.2;
    ringMs *= 2.0;
  }
  sections[count++] = Lowpass(coneHz, 0.6, fs);
  sections[count++] = Lowpass(coneHz * 1.15, 0.8, fs);

  // The room microphone hears the floor and a near wall after the direct
  // sound.
  const int reflection1 = mic == 2 ? static_cast<int>(std::lround(0.0013 * fs)) : -1;
  const int reflection2 = mic == 2 ? static_cast<int>(std::lround(0.0031 * fs)) : -1;
  std::uint32_t seed = 0x9E3779B9u ^ static_cast<std::uint32_t>(model * kNumMicTypes + mic + 1) * 2654435761u;
  const double ringDecay = std::exp(-1000.0 / (ringMs * fs));
  double ring = 0.3;
  const int fadeStart = static_cast<int>(0.7 * length);
  for (int n = 0; n < length; ++n) {
    seed = seed * 1664525u + 1013904223u;
    const double noise = static_cast<double>(seed >> 8) / 8388608.0 - 1.0;
    double e = (n == 0 ? 1.0 : 0.0) + ring * noise;
    if (n == reflection1) e += 0.4;
    if (n == reflection2) e += 0.25;
    ring *= ringDecay;
    for (int s = 0; s < count; ++s) e = sections[s].Run(e);
    if (n >= fadeStart) e *= 0.5 * (1.0 + std::cos(kPi * (n - fadeStart) / (length - fadeStart)));
    out[n] = static_cast<float>(e);
  }

  double peak = 0.0;
  for (int k = 0; k < kGridPoints; ++k) {
    const double w = kPi * k / (kGridPoints - 1);
    const double cr = std::cos(w), ci = -std::sin(w);
    double pr = 1.0, pi = 0.0, re = 0.0, im = 0.0;
    for (int n = 0; n < length; ++n) {
      re += out[n] * pr;
      im += out[n] * pi;
      const double t = pr * cr - pi * ci;
      pi = pr * ci + pi * cr;
      pr = t;
    }
    peak = std::max(peak, std::hypot(re, im));
  }
  if (peak > 0.0) {
    const auto scale = static_cast<float>(1.0 / peak);
    for (int n = 0; n < length; ++n) out[n] *= scale;
  }
  return true;
}

}  // namespace boxmodeler
}  // namespace guitarsuite
}  // namespace dsp
