// A curve as a picture.
#pragma once

#include <string>
#include <vector>

#include "curve/hitCurve.h"

namespace diskcachectl {

// Two charts side by side, the hit ratio over entries and over bytes, both to a logarithmic scale.
std::string asSvg(const std::vector<CurvePoint>& points, const std::string& title);

// The same as a PNG file, drawn by gnuplot. Throws a Failure when that is not installed or fails.
void writePng(const std::vector<CurvePoint>& points, const std::string& title, const std::string& path);

}  // namespace diskcachectl
