// The SVG writer the plotting commands share.

#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <string>

#include "Plot.h"

namespace {

int Count(const std::string& text, const std::string& what) {
  int n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++n;
  }
  return n;
}

TEST(Plot, LogLinePlotHasLabelledDecadesAndBreaksAtGaps) {
  vexdsp::PlotSeries s{"eq", {20.0, 100.0, 1000.0, 10000.0, 20000.0}, {0.0, -3.0, NAN, 6.0, 0.0}};
  vexdsp::PlotOptions options;
  options.title = "Response <eq>";
  options.xLabel = "Frequency (Hz)";
  options.yLabel = "Magnitude (dB)";
  options.logX = true;
  const std::string svg = vexdsp::LinePlotSvg({s}, options);
  EXPECT_EQ(svg.rfind("<svg", 0), 0u);
  EXPECT_NE(svg.find("</svg>"), std::string::npos);
  EXPECT_NE(svg.find("Response &lt;eq&gt;"), std::string::npos) << "text is escaped";
  EXPECT_NE(svg.find("Frequency (Hz)"), std::string::npos);
  for (const char* tick : {">100<", ">1k<", ">10k<", ">20<"}) {
    EXPECT_NE(svg.find(tick), std::string::npos) << tick;
  }
  // The NaN splits the curve: two move-to commands in its path.
  const std::smatch path = [&] {
    std::smatch m;
    std::regex_search(svg, m, std::regex("<path d=\"([^\"]*)\""));
    return m;
  }();
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(Count(path[1].str(), "M"), 2);
  EXPECT_EQ(Count(path[1].str(), "L"), 2);
}

// On a log axis the x positions of 20, 200 and 2000 Hz are evenly spaced.
TEST(Plot, LogAxisSpacesDecadesEvenly) {
  vexdsp::PlotSeries s{"", {20.0, 200.0, 2000.0}, {0.0, 0.0, 0.0}};
  vexdsp::PlotOptions options;
  options.logX = true;
  const std::string svg = vexdsp::LinePlotSvg({s}, options);
  std::smatch m;
  ASSERT_TRUE(std::regex_search(svg, m, std::regex(" M([0-9.]+) [0-9.]+ L([0-9.]+) [0-9.]+ L([0-9.]+)")));
  const double a = std::stod(m[1]), b = std::stod(m[2]), c = std::stod(m[3]);
  EXPECT_NEAR(b - a, c - b, 0.02);
}

TEST(Plot, BarPlotDrawsOneBarPerFiniteValue) {
  const std::string svg = vexdsp::BarPlotSvg({"31.5", "63", "125"}, {-20.0, NAN, -6.0}, {});
  EXPECT_EQ(Count(svg, "fill=\"#1f77b4\""), 2);
  EXPECT_NE(svg.find(">63<"), std::string::npos);
}

}  // namespace
