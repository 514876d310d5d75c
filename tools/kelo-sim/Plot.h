// Small SVG charts: panels of lines over a shared horizontal axis.
#ifndef KELO_TOOLS_KELOSIM_PLOT_H_
#define KELO_TOOLS_KELOSIM_PLOT_H_

#include <string>
#include <vector>

namespace kelo::sim {

struct Series {
  std::string name;
  std::vector<double> y;
};

struct Panel {
  std::string title;  // with the unit
  std::vector<Series> series;
};

// One panel under another, each plotting its series against the labels of the x axis.
std::string svgChart(const std::string& title, const std::vector<std::string>& xLabels,
                     const std::vector<Panel>& panels);

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_PLOT_H_
