#include "curve/picture.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "common/failure.h"
#include "common/units.h"

namespace diskcachectl {

namespace {

constexpr double WIDTH = 420, HEIGHT = 300, LEFT = 60, TOP = 50, GAP = 80;

// Text in a picture is no markup.
std::string escaped(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    switch (c) {
      case '<': shown += "&lt;"; break;
      case '>': shown += "&gt;"; break;
      case '&': shown += "&amp;"; break;
      default: shown += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    }
  }
  return shown;
}

struct Axis {
  const char* name;
  uint64_t CurvePoint::*value;
  double step;  // from one mark to the next
  std::string (*format)(uint64_t);
};

class Chart {
 public:
  Chart(const std::vector<CurvePoint>& points, const Axis& axis, double left) : m_axis(axis), m_left(left) {
    m_first = m_last = 0;
    for (const CurvePoint& point : points) {
      const auto value = static_cast<double>(point.*axis.value);
      if (m_first == 0) m_first = value;  // the first that is drawn
      m_last = std::max(m_last, value);
    }
    m_first = std::max(m_first, 1.0);
    m_last = std::max(m_last, m_first * 2);
  }

  std::string draw(const std::vector<CurvePoint>& points) const {
    std::string svg = fmt::format(
        "<rect x='{:.1f}' y='{:.1f}' width='{:.1f}' height='{:.1f}' fill='none' stroke='#888'/>\n", m_left,
        TOP, WIDTH, HEIGHT);
    for (int percent = 0; percent <= 100; percent += 20) {
      const double y = yOf(percent / 100.0);
      svg += fmt::format("<line x1='{:.1f}' y1='{:.1f}' x2='{:.1f}' y2='{:.1f}' stroke='#ddd'/>\n", m_left, y,
                         m_left + WIDTH, y);
      svg += text(m_left - 6, y + 4, "end", fmt::format("{} %", percent));
    }
    for (double mark = 1; mark <= m_last; mark *= m_axis.step) {
      if (mark >= m_first)
        svg += text(xOf(mark), TOP + HEIGHT + 16, "middle", m_axis.format(static_cast<uint64_t>(mark)));
    }
    svg += text(m_left + WIDTH / 2, TOP + HEIGHT + 36, "middle", m_axis.name);
    return svg + line(points);
  }

 private:
  static std::string text(double x, double y, const char* anchor, const std::string& words) {
    return fmt::format("<text x='{:.1f}' y='{:.1f}' text-anchor='{}'>{}</text>\n", x, y, anchor, words);
  }
  std::string line(const std::vector<CurvePoint>& points) const {
    std::string svg = "<polyline fill='none' stroke='#1f6fb4' stroke-width='2' points='";
    for (const CurvePoint& point : points) {
      if (point.*m_axis.value == 0) continue;
      svg +=
          fmt::format("{:.1f},{:.1f} ", xOf(static_cast<double>(point.*m_axis.value)), yOf(point.hitRatio));
    }
    return svg + "'/>\n";
  }
  double xOf(double value) const {
    return m_left + WIDTH * std::log(value / m_first) / std::log(m_last / m_first);
  }
  static double yOf(double ratio) { return TOP + HEIGHT * (1 - ratio); }

  const Axis& m_axis;
  const double m_left;
  double m_first, m_last;
};

const Axis AXES[] = {{"objects in the cache", &CurvePoint::entries, 10, formatCount},
                     {"bytes in the cache", &CurvePoint::bytes, 32, formatSize}};

}  // namespace

std::string asSvg(const std::vector<CurvePoint>& points, const std::string& title) {
  std::string svg = fmt::format(
      "<svg xmlns='http://www.w3.org/2000/svg' width='{:.0f}' height='{:.0f}' font-family='sans-serif' "
      "font-size='12'>\n<rect width='100%' height='100%' fill='white'/>\n"
      "<text x='{:.0f}' y='28' font-size='16'>{}</text>\n",
      LEFT + 2 * WIDTH + GAP + 30, TOP + HEIGHT + 50, LEFT, escaped(title));
  double left = LEFT;
  for (const Axis& axis : AXES) {
    svg += Chart(points, axis, left).draw(points);
    left += WIDTH + GAP;
  }
  return svg + "</svg>\n";
}

void writePng(const std::vector<CurvePoint>& points, const std::string& title, const std::string& path) {
  if (std::system("command -v gnuplot >/dev/null 2>&1") != 0) {
    throw Failure(ExitStatus::BadInput,
                  path + ": a PNG needs gnuplot, which is not installed; an .svg does not");
  }
  // Names go to gnuplot in strings of its own, which know no end but the quote.
  const auto quoted = [](std::string text) {
    for (size_t at = 0; (at = text.find('\'', at)) != std::string::npos; at += 2) text.insert(at, 1, '\'');
    return '\'' + text + '\'';
  };
  std::FILE* gnuplot = popen("gnuplot", "w");
  if (gnuplot == nullptr) throw Failure(ExitStatus::Error, "cannot start gnuplot");
  fmt::print(gnuplot,
             "set terminal png size 1000,420\nset output {}\nset multiplot layout 1,2 title {} noenhanced\n"
             "set logscale x\nset yrange [0:1]\nset key off\nset grid\n",
             quoted(path), quoted(title));
  for (const Axis& axis : AXES) {
    fmt::print(gnuplot, "set xlabel {}\nplot '-' with lines lw 2\n", quoted(axis.name));
    for (const CurvePoint& point : points) {
      if (point.*axis.value != 0) fmt::print(gnuplot, "{} {}\n", point.*axis.value, point.hitRatio);
    }
    fmt::print(gnuplot, "e\n");
  }
  fmt::print(gnuplot, "unset multiplot\n");
  if (pclose(gnuplot) != 0) throw Failure(ExitStatus::Error, path + ": gnuplot could not draw it");
}

}  // namespace diskcachectl
