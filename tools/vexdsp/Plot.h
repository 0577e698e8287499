#pragma once

#include <string>
#include <vector>

namespace vexdsp {

/// A small SVG chart writer for the commands that draw (response,
/// spectrum): one line plot or one bar plot with a title, labelled axes,
/// grid lines and tick labels. The x axis of a line plot may be
/// logarithmic (frequency). Values that are not finite are left out of a
/// line (the line breaks there) and drawn as empty bars.
struct PlotSeries {
  std::string label;
  std::vector<double> x;
  std::vector<double> y;
};

struct PlotOptions {
  std::string title;
  std::string xLabel;
  std::string yLabel;
  bool logX = false;
  /// y range; when yMin >= yMax the range is taken from the data.
  double yMin = 0.0;
  double yMax = 0.0;
  int width = 800;
  int height = 450;
};

/// Line plot of one or more series.
std::string LinePlotSvg(const std::vector<PlotSeries>& series, const PlotOptions& options);
/// Bar plot: one bar per label, heights `values` (drawn up from yMin).
std::string BarPlotSvg(const std::vector<std::string>& labels, const std::vector<double>& values,
                       const PlotOptions& options);
/// Writes text to a file through a temporary name renamed on success;
/// throws CliError when it cannot.
void WriteTextFile(const std::string& path, const std::string& text);

}  // namespace vexdsp
