// The live meter view: one bar per channel on a -60...0 dBFS scale with a peak mark, redrawn
// in place on a terminal (appended frame by frame otherwise).

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <thread>

#include "brisola/runtime/meter_store.hpp"
#include "brisolactl/ctl.hpp"

namespace brisola::ctl {

namespace {

volatile std::sig_atomic_t stopRequested = 0;

extern "C" void requestStop(int) {
  stopRequested = 1;
}

constexpr int barWidth = 48;
constexpr double floorDecibels = -60.0;
constexpr auto refreshInterval = std::chrono::milliseconds(200);

double decibels(double level) {
  return level > 0.0 ? 20.0 * std::log10(level) : -INFINITY;
}

int barCells(double level) {
  const double fraction = (decibels(level) - floorDecibels) / -floorDecibels;
  if (!(fraction > 0.0)) return 0;
  return static_cast<int>(std::lround(std::min(fraction, 1.0) * barWidth));
}

std::string decibelText(double level) {
  const double value = decibels(level);
  if (!std::isfinite(value)) return "  -inf";
  char text[16];
  std::snprintf(text, sizeof text, "%6.1f", value);
  return text;
}

std::string frame(const std::string& title,
                  const std::optional<RuntimeMeterStore::Reading>& reading) {
  std::ostringstream out;
  out << title << "  (Ctrl-C to stop)\n";
  if (!reading || reading->levels.empty()) {
    out << "  no live reading\n";
    return out.str();
  }
  for (std::size_t k = 0; k < reading->levels.size(); ++k) {
    const double level = reading->levels[k];
    const double peak = k < reading->peaks.size() ? reading->peaks[k] : level;
    const int cells = barCells(level);
    const int peakCell = barCells(peak);
    std::string bar(barWidth, ' ');
    std::fill_n(bar.begin(), cells, '=');
    if (peakCell > 0) bar[static_cast<std::size_t>(peakCell - 1)] = '|';
    out << (k + 1 < 10 ? "   " : "  ") << (k + 1) << " [" << bar << "] " << decibelText(level)
        << " dB  peak " << decibelText(peak) << " dB\n";
  }
  return out.str();
}

}  // namespace

void watchMeter(const std::string& ownerID, const std::string& title) {
  struct sigaction action {};
  action.sa_handler = requestStop;
  ::sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);

  const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  const auto start = std::chrono::steady_clock::now();
  MeterTap tap;
  long linesShown = 0;
  while (stopRequested == 0) {
    const double at =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    MeterTap::Readings readings;
    if (auto reading = RuntimeMeterStore::reading(ownerID)) readings.emplace(ownerID, *reading);
    tap.update(readings, at);
    const std::string text = frame(title, tap.reading(ownerID, at));
    // Back to the first line of the previous frame, then clear to the end of the screen.
    if (terminal && linesShown > 0) std::cout << "\x1b[" << linesShown << "F\x1b[J";
    std::cout << text << std::flush;
    linesShown = std::count(text.begin(), text.end(), '\n');
    std::this_thread::sleep_for(refreshInterval);
  }
}

}  // namespace brisola::ctl
