#include "Plot.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "CliError.h"

namespace vexdsp {
namespace {

constexpr double kLeft = 70.0;
constexpr double kRight = 20.0;
constexpr double kTop = 40.0;
constexpr double kBottom = 60.0;
const char* const kColours[] = {"#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e", "#8c564b"};

std::string Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f", value);
  return text;
}

std::string TickLabel(double value) {
  char text[32];
  if (std::fabs(value) >= 1000.0 && std::fmod(value, 1000.0) == 0.0) {
    std::snprintf(text, sizeof(text), "%gk", value / 1000.0);
  } else {
    std::snprintf(text, sizeof(text), "%g", value);
  }
  return text;
}

// Round steps of 1, 2 or 5 times a power of ten, about `count` of them.
std::vector<double> LinearTicks(double low, double high, int count) {
  const double raw = (high - low) / std::max(count, 1);
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  double step = power;
  for (double m : {1.0, 2.0, 5.0, 10.0}) {
    if (m * power >= raw) {
      step = m * power;
      break;
    }
  }
  std::vector<double> ticks;
  for (double t = std::ceil(low / step) * step; t <= high + step * 1e-9; t += step) {
    ticks.push_back(std::fabs(t) < step * 1e-9 ? 0.0 : t);
  }
  return ticks;
}

struct Frame {
  double width, height, xLow, xHigh, yLow, yHigh;
  bool logX;
  double X(double x) const {
    const double t = logX ? std::log(x / xLow) / std::log(xHigh / xLow) : (x - xLow) / (xHigh - xLow);
    return kLeft + t * (width - kLeft - kRight);
  }
  double Y(double y) const {
    const double t = (std::clamp(y, yLow, yHigh) - yLow) / (yHigh - yLow);
    return height - kBottom - t * (height - kTop - kBottom);
  }
};

void Header(std::ostringstream& svg, const PlotOptions& options) {
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << options.width << "\" height=\"" << options.height
      << "\" viewBox=\"0 0 " << options.width << ' ' << options.height
      << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << options.width / 2 << "\" y=\"22\" text-anchor=\"middle\" font-size=\"16\">"
      << Escape(options.title) << "</text>\n"
      << "<text x=\"" << options.width / 2 << "\" y=\"" << options.height - 15 << "\" text-anchor=\"middle\">"
      << Escape(options.xLabel) << "</text>\n"
      << "<text transform=\"translate(18 " << options.height / 2 << ") rotate(-90)\" text-anchor=\"middle\">"
      << Escape(options.yLabel) << "</text>\n";
}

void YAxis(std::ostringstream& svg, const Frame& f) {
  for (double t : LinearTicks(f.yLow, f.yHigh, 8)) {
    svg << "<line x1=\"" << kLeft << "\" x2=\"" << f.width - kRight << "\" y1=\"" << Number(f.Y(t)) << "\" y2=\""
        << Number(f.Y(t)) << "\" stroke=\"#ddd\"/>\n"
        << "<text x=\"" << kLeft - 6 << "\" y=\"" << Number(f.Y(t) + 4) << "\" text-anchor=\"end\">" << TickLabel(t)
        << "</text>\n";
  }
  svg << "<rect x=\"" << kLeft << "\" y=\"" << kTop << "\" width=\"" << f.width - kLeft - kRight << "\" height=\""
      << f.height - kTop - kBottom << "\" fill=\"none\" stroke=\"#333\"/>\n";
}

// The options' y range, or the data's finite values with a margin.
void YRange(const PlotOptions& options, const std::vector<double>& values, Frame* f) {
  double* low = &f->yLow;
  double* high = &f->yHigh;
  if (options.yMin < options.yMax) {
    *low = options.yMin;
    *high = options.yMax;
    return;
  }
  *low = INFINITY;
  *high = -INFINITY;
  for (double v : values) {
    if (std::isfinite(v)) {
      *low = std::min(*low, v);
      *high = std::max(*high, v);
    }
  }
  if (!std::isfinite(*low)) {
    *low = 0.0;
    *high = 1.0;
  }
  if (*high - *low < 1e-9) {
    *low -= 1.0;
    *high += 1.0;
  }
  const double margin = (*high - *low) * 0.05;
  *low -= margin;
  *high += margin;
}

}  // namespace

std::string LinePlotSvg(const std::vector<PlotSeries>& series, const PlotOptions& options) {
  std::vector<double> xs;
  std::vector<double> ys;
  for (const PlotSeries& s : series) {
    for (std::size_t i = 0; i < std::min(s.x.size(), s.y.size()); ++i) {
      if (std::isfinite(s.x[i]) && (!options.logX || s.x[i] > 0.0)) {
        xs.push_back(s.x[i]);
        ys.push_back(s.y[i]);
      }
    }
  }
  Frame f{static_cast<double>(options.width), static_cast<double>(options.height), 1.0, 10.0, 0.0, 1.0, options.logX};
  if (!xs.empty()) {
    f.xLow = *std::min_element(xs.begin(), xs.end());
    f.xHigh = *std::max_element(xs.begin(), xs.end());
  }
  if (f.xHigh <= f.xLow) {
    f.xHigh = f.xLow * (options.logX ? 10.0 : 1.0) + 1.0;
  }
  YRange(options, ys, &f);

  std::ostringstream svg;
  Header(svg, options);
  YAxis(svg, f);
  std::vector<double> xTicks;
  if (options.logX) {
    for (double decade = std::pow(10.0, std::floor(std::log10(f.xLow))); decade <= f.xHigh; decade *= 10.0) {
      for (double m : {1.0, 2.0, 5.0}) {
        if (m * decade >= f.xLow && m * decade <= f.xHigh) {
          xTicks.push_back(m * decade);
        }
      }
    }
  } else {
    xTicks = LinearTicks(f.xLow, f.xHigh, 10);
  }
  for (double t : xTicks) {
    svg << "<line x1=\"" << Number(f.X(t)) << "\" x2=\"" << Number(f.X(t)) << "\" y1=\"" << kTop << "\" y2=\""
        << f.height - kBottom << "\" stroke=\"#ddd\"/>\n"
        << "<text x=\"" << Number(f.X(t)) << "\" y=\"" << f.height - kBottom + 16 << "\" text-anchor=\"middle\">"
        << TickLabel(t) << "</text>\n";
  }
  for (std::size_t k = 0; k < series.size(); ++k) {
    const PlotSeries& s = series[k];
    std::string path;
    bool pen = false;
    for (std::size_t i = 0; i < std::min(s.x.size(), s.y.size()); ++i) {
      const bool drawable = std::isfinite(s.x[i]) && std::isfinite(s.y[i]) && (!options.logX || s.x[i] > 0.0);
      if (!drawable) {
        pen = false;
        continue;
      }
      path += (pen ? " L" : " M") + Number(f.X(s.x[i])) + ' ' + Number(f.Y(s.y[i]));
      pen = true;
    }
    const char* colour = kColours[k % (sizeof(kColours) / sizeof(kColours[0]))];
    svg << "<path d=\"" << path << "\" fill=\"none\" stroke=\"" << colour << "\" stroke-width=\"1.5\"/>\n";
    if (series.size() > 1 && !s.label.empty()) {
      svg << "<text x=\"" << f.width - kRight - 6 << "\" y=\"" << kTop + 16 * (k + 1)
          << "\" text-anchor=\"end\" fill=\"" << colour << "\">" << Escape(s.label) << "</text>\n";
    }
  }
  svg << "</svg>\n";
  return svg.str();
}

std::string BarPlotSvg(const std::vector<std::string>& labels, const std::vector<double>& values,
                       const PlotOptions& options) {
  Frame f{static_cast<double>(options.width), static_cast<double>(options.height), 0.0, 1.0, 0.0, 1.0, false};
  YRange(options, values, &f);
  std::ostringstream svg;
  Header(svg, options);
  YAxis(svg, f);
  const std::size_t n = std::min(labels.size(), values.size());
  const double slot = (f.width - kLeft - kRight) / static_cast<double>(std::max<std::size_t>(n, 1));
  // Label every bar when they fit, otherwise every k-th.
  const std::size_t every = std::max<std::size_t>(1, static_cast<std::size_t>(std::ceil(34.0 / slot)));
  for (std::size_t i = 0; i < n; ++i) {
    const double x = kLeft + slot * static_cast<double>(i);
    if (std::isfinite(values[i])) {
      const double top = f.Y(values[i]);
      svg << "<rect x=\"" << Number(x + slot * 0.1) << "\" y=\"" << Number(top) << "\" width=\"" << Number(slot * 0.8)
          << "\" height=\"" << Number(std::max(f.Y(f.yLow) - top, 0.0)) << "\" fill=\"#1f77b4\"/>\n";
    }
    if (i % every == 0) {
      svg << "<text x=\"" << Number(x + slot / 2) << "\" y=\"" << f.height - kBottom + 16
          << "\" text-anchor=\"middle\" font-size=\"10\">" << Escape(labels[i]) << "</text>\n";
    }
  }
  svg << "</svg>\n";
  return svg.str();
}

void WriteTextFile(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp" + std::to_string(::getpid());
  {
    std::ofstream file(temporary, std::ios::binary);
    file << text;
    file.flush();
    if (!file) {
      std::remove(temporary.c_str());
      throw CliError("cannot write '" + path + "': " + std::strerror(errno));
    }
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    std::remove(temporary.c_str());
    throw CliError("cannot write '" + path + "': " + reason);
  }
}

}  // namespace vexdsp
