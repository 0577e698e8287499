// The peer for the whole-command comparison with `vexdsp loudness`: reads a
// sound file with libsndfile and prints libebur128's integrated loudness,
// true peak, loudness range and maximum momentary and short-term loudness.
// Usage: ebur128_file FILE

#include <ebur128.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ebur128_file FILE\n");
    return 2;
  }
  SF_INFO info{};
  SNDFILE* file = sf_open(argv[1], SFM_READ, &info);
  if (file == nullptr) {
    std::fprintf(stderr, "%s: %s\n", argv[1], sf_strerror(nullptr));
    return 1;
  }
  const auto channels = static_cast<unsigned>(info.channels);
  ebur128_state* st =
      ebur128_init(channels, static_cast<unsigned long>(info.samplerate),
                   EBUR128_MODE_I | EBUR128_MODE_TRUE_PEAK | EBUR128_MODE_LRA | EBUR128_MODE_M | EBUR128_MODE_S);
  constexpr sf_count_t kBlock = 4096;
  std::vector<float> buffer(static_cast<std::size_t>(kBlock) * channels);
  // Momentary and short-term maxima are polled every 100 ms, as a meter would.
  const sf_count_t step = info.samplerate / 10;
  double momentaryMax = -HUGE_VAL, shortTermMax = -HUGE_VAL;
  sf_count_t sinceStep = 0;
  for (sf_count_t got; (got = sf_readf_float(file, buffer.data(), kBlock)) > 0;) {
    for (sf_count_t done = 0; done < got;) {
      const sf_count_t n = std::min(got - done, step - sinceStep);
      ebur128_add_frames_float(st, buffer.data() + done * channels, static_cast<std::size_t>(n));
      done += n;
      sinceStep += n;
      if (sinceStep == step) {
        sinceStep = 0;
        double m = 0.0, s = 0.0;
        if (ebur128_loudness_momentary(st, &m) == EBUR128_SUCCESS) momentaryMax = std::max(momentaryMax, m);
        if (ebur128_loudness_shortterm(st, &s) == EBUR128_SUCCESS) shortTermMax = std::max(shortTermMax, s);
      }
    }
  }
  sf_close(file);
  double integrated = 0.0, range = 0.0, peak = 0.0;
  ebur128_loudness_global(st, &integrated);
  ebur128_loudness_range(st, &range);
  for (unsigned c = 0; c < channels; ++c) {
    double p = 0.0;
    ebur128_true_peak(st, c, &p);
    peak = std::max(peak, p);
  }
  ebur128_destroy(&st);
  std::printf("integrated %.2f LUFS, true peak %.2f dBTP, range %.2f LU, momentary max %.2f, short-term max %.2f\n",
              integrated, 20.0 * std::log10(peak), range, momentaryMax, shortTermMax);
  return 0;
}
