#include "common/progress.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <utility>

#include "common/units.h"

namespace diskcachectl {
namespace {

constexpr const char* WIPE_LINE = "\r\033[K";
constexpr size_t BAR_WIDTH = 40;

}  // namespace

Progress::Progress(std::string what) : m_what(std::move(what)), m_isTerminal(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (m_isShown) std::fputs(WIPE_LINE, stderr);
}

void Progress::show(double part, std::string_view detail) {
  if (!m_isTerminal) return;
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - m_start;
  if (elapsed.count() < 1) return;
  m_isShown = true;
  part = std::clamp(part, 0.0, 1.0);
  const auto filled = static_cast<size_t>(part * BAR_WIDTH);
  fmt::print(stderr, "{}{} [{}{}] {:3.0f}%  {}", WIPE_LINE, m_what, std::string(filled, '#'),
             std::string(BAR_WIDTH - filled, '.'), part * 100, detail);
  std::fflush(stderr);
}

void Progress::show(uint64_t done, uint64_t total) {
  if (!m_isTerminal) return;
  const double part = static_cast<double>(done) / static_cast<double>(std::max<uint64_t>(total, 1));
  show(part, fmt::format("{} of {}", formatCount(std::min(done, total)), formatCount(total)));
}

}  // namespace diskcachectl
