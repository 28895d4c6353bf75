#include "progress.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <utility>

#include "units.h"

namespace diskcachectl {
namespace {

constexpr const char* WIPE_LINE = "\r\033[K";
constexpr size_t BAR_WIDTH = 40;

}  // namespace

Progress::Progress(std::string what, uint64_t total)
    : m_what(std::move(what)),
      m_total(std::max<uint64_t>(total, 1)),
      m_isTerminal(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (m_isShown) std::fputs(WIPE_LINE, stderr);
}

void Progress::show(uint64_t done) {
  if (!m_isTerminal) return;
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - m_start;
  if (elapsed.count() < 1) return;
  m_isShown = true;
  const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(m_total));
  const auto filled = static_cast<size_t>(part * BAR_WIDTH);
  fmt::print(stderr, "{}{} [{}{}] {:3.0f}%  {} of {}", WIPE_LINE, m_what, std::string(filled, '#'),
             std::string(BAR_WIDTH - filled, '.'), part * 100, formatCount(done), formatCount(m_total));
  std::fflush(stderr);
}

}  // namespace diskcachectl
