// How far a session is, on standard error.
#pragma once

#include <chrono>
#include <string>

/// Tells after a micrograph how many are done, picks so far, micrographs per minute and the time left. On a terminal that
/// doesn't take the report too the line is written over; elsewhere a line every few seconds. Says nothing where it is
/// neither asked for nor standard error a terminal.
class Progress {
 public:
  explicit Progress(bool asked_for);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

  /// done of all micrographs, of which `picked` took time; picks in their lists; the last one's name.
  void tell(int done, int all, int picked, long picks, const std::string& last);

 private:
  using Clock = std::chrono::steady_clock;
  bool tells_, over_;
  bool open_ = false;  // a line stands there to be written over
  Clock::time_point begin_ = Clock::now(), told_{};
};
