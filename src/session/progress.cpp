#include "session/progress.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "platform/failure.h"

namespace {

constexpr double kSecondsBetweenLines = 5;
constexpr char kTakeOff[] = "\r\x1b[K";  // what stands on the terminal's line

double seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::string duration_text(double s) {
  char text[48];
  const long minutes = std::lround(s / 60);
  if (s < 90) {
    snprintf(text, sizeof text, "%.0f s", s);
  } else if (minutes < 120) {
    snprintf(text, sizeof text, "%ld min", minutes);
  } else {
    snprintf(text, sizeof text, "%ld h %02ld min", minutes / 60, minutes % 60);
  }
  return text;
}

}  // namespace

Progress::Progress(bool asked_for)
    : tells_(asked_for || isatty(STDERR_FILENO)), over_(isatty(STDERR_FILENO) && !isatty(STDOUT_FILENO)) {}

Progress::~Progress() {
  set_text_before_notes("");
  if (open_) fputc('\n', stderr);
}

void Progress::tell(int done, int all, int picked, long picks, const std::string& last) {
  const Clock::time_point now = Clock::now();
  const bool due = over_ || done == all || seconds(now - told_) >= kSecondsBetweenLines;
  if (!tells_ || !due) return;
  told_ = now;
  const double spent = seconds(now - begin_);
  const double each = picked > 0 ? spent / picked : 0;
  fprintf(stderr, "%sKestrix: %d of %d micrographs, %ld picks", over_ ? kTakeOff : "", done, all, picks);
  if (picked > 0) fprintf(stderr, ", %.1f per minute, %s left", 60 / each, duration_text(each * (all - done)).c_str());
  fprintf(stderr, "; last %s%s", last.c_str(), over_ ? "" : "\n");
  fflush(stderr);
  open_ = over_;
  if (over_) set_text_before_notes(kTakeOff);
}
