// One micrograph of a session after the other, in one process: looked at, prepared for, picked.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "formats/image_diagnosis.h"
#include "formats/read_ahead.h"
#include "run/picking.h"
#include "session/summary.h"

/// What became of a micrograph.
struct Taken {
  SummaryRow row;
  std::string problem;  // why it can't be picked, where that is so; the rest of a sentence that begins with its name
  RunTally tally;       // what it adds to the run's
};

class Picker {
 public:
  /// run: read, and not prepared; its parameters are asked for again at each preparation.
  explicit Picker(Run* run) : run_(run), asked_(run->para) {}

  /// Prepares for the whole list, all of one size, and prints the time.
  void prepare_for_list();

  /// Looks at a micrograph that is to be picked next: whether there is something wrong with it, where the run is to keep
  /// going past such ones. Without that nothing is looked at. facts: what was seen.
  std::string look_at(const std::string& name, ImageFacts* facts);

  /// Whether the preparation at hand, if any, is for micrographs of the last one's size.
  bool is_prepared() const { return prepared_; }

  /// Gives the preparation up; the next one is timed and told anew.
  void unprepare();

  /// Prepares for micrographs of this one's size, unless that is done, and prints the time.
  void prepare_for(const std::string& name);

  Taken pick(const std::string& name);

  /// All of it. next: the micrograph behind it, whose file the kernel fetches meanwhile, or "".
  Taken take(const std::string& name, const std::string& next);

 private:
  Run* run_;
  const Kestrix_Para asked_;  // the parameters before any preparation
  bool prepared_ = false;
  std::chrono::steady_clock::time_point begin_;  // of the micrograph that was looked at
  std::unique_ptr<ImageFile> image_;             // of it, where it is open
  ReadAhead read_ahead_;
};

/// A micrograph that can't be picked.
Taken failed_micrograph(const std::string& name, const std::string& problem);

/// What is wrong with a micrograph for this run: with its file, or with cutting particles out of it. facts: set. whole,
/// opened: as look_at_image has them; unless it is whole nothing is said about cutting out.
std::string problem_of_micrograph(const std::string& name, const Kestrix_Para& para, bool whole, ImageFacts* facts,
                                  std::unique_ptr<ImageFile>* opened = nullptr);
