#include "tools/kelo-sim/Plot.h"

#include <algorithm>
#include <cstdio>

namespace kelo::sim {

namespace {

constexpr const char* kColours[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e", "#9467bd"};
constexpr double kWidth = 720;
constexpr double kPanelHeight = 200;
constexpr double kLeft = 70;
constexpr double kRight = 170;  // room for the legend
constexpr double kTop = 40;

std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == '&')
      out += "&amp;";
    else
      out += c;
  }
  return out;
}

std::string number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", v);
  return text;
}

}  // namespace

std::string svgChart(const std::string& title, const std::vector<std::string>& xLabels,
                     const std::vector<Panel>& panels) {
  const double height = kTop + panels.size() * (kPanelHeight + 40) + 20;
  std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(kWidth) +
                    "\" height=\"" + number(height) + "\" font-family=\"sans-serif\" " +
                    "font-size=\"11\">\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  svg +=
      "<text x=\"" + number(kLeft) + "\" y=\"20\" font-size=\"14\">" + escape(title) + "</text>\n";
  const std::size_t n = xLabels.size();
  const double plotWidth = kWidth - kLeft - kRight;
  auto xAt = [&](std::size_t i) {
    return kLeft + (n > 1 ? plotWidth * static_cast<double>(i) / static_cast<double>(n - 1)
                          : plotWidth / 2);
  };
  for (std::size_t p = 0; p < panels.size(); ++p) {
    const Panel& panel = panels[p];
    const double top = kTop + p * (kPanelHeight + 40) + 20;
    const double bottom = top + kPanelHeight;
    double high = 0;
    for (const Series& s : panel.series) {
      for (double v : s.y) high = std::max(high, v);
    }
    if (high <= 0) high = 1;
    svg += "<text x=\"" + number(kLeft) + "\" y=\"" + number(top - 6) + "\">" +
           escape(panel.title) + "</text>\n";
    svg += "<line x1=\"" + number(kLeft) + "\" y1=\"" + number(bottom) + "\" x2=\"" +
           number(kLeft + plotWidth) + "\" y2=\"" + number(bottom) + "\" stroke=\"black\"/>\n";
    svg += "<line x1=\"" + number(kLeft) + "\" y1=\"" + number(top) + "\" x2=\"" + number(kLeft) +
           "\" y2=\"" + number(bottom) + "\" stroke=\"black\"/>\n";
    for (double f : {0.0, 0.5, 1.0}) {
      svg += "<text x=\"" + number(kLeft - 6) + "\" y=\"" + number(bottom - f * kPanelHeight + 4) +
             "\" text-anchor=\"end\">" + number(f * high) + "</text>\n";
    }
    const std::size_t step = std::max<std::size_t>(1, n / 12);
    for (std::size_t i = 0; i < n; i += step) {
      svg += "<text x=\"" + number(xAt(i)) + "\" y=\"" + number(bottom + 14) +
             "\" text-anchor=\"middle\">" + escape(xLabels[i]) + "</text>\n";
    }
    for (std::size_t s = 0; s < panel.series.size(); ++s) {
      const Series& series = panel.series[s];
      const char* colour = kColours[s % (sizeof kColours / sizeof kColours[0])];
      std::string points;
      for (std::size_t i = 0; i < series.y.size() && i < n; ++i) {
        const double y = bottom - series.y[i] / high * kPanelHeight;
        points += number(xAt(i)) + "," + number(y) + " ";
        svg += "<circle cx=\"" + number(xAt(i)) + "\" cy=\"" + number(y) + "\" r=\"2\" fill=\"" +
               colour + "\"/>\n";
      }
      svg += std::string("<polyline fill=\"none\" stroke=\"") + colour + "\" points=\"" + points +
             "\"/>\n";
      svg += "<text x=\"" + number(kLeft + plotWidth + 10) + "\" y=\"" +
             number(top + 14 * (s + 1)) + "\" fill=\"" + colour + "\">" + escape(series.name) +
             "</text>\n";
    }
  }
  return svg + "</svg>\n";
}

}  // namespace kelo::sim
