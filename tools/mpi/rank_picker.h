// What every rank does with the micrographs that it gets.
#pragma once

#include <string>
#include <vector>

#include "mpi/leader.h"
#include "mpi/ranks.h"
#include "session/picker.h"
#include "session/streams.h"

class RankPicker {
 public:
  /// run: read, and not prepared.
  RankPicker(const RankPlace& place, Run* run);

  /// The list; after the preparation its first name is one that is readable, as in a run of one process.
  const std::vector<std::string>& names() const { return names_; }

  /// Prepares for the whole list unless its micrographs may be of several sizes.
  void prepare();

  /// Picks a micrograph, and takes what one process would print on its way to it.
  Told pick(int position);

  /// That the run ends here, with what was printed so far if it was taken.
  Told end_of_run(int status);

  CapturedStreams& streams() { return streams_; }
  RankTimes& times() { return times_; }
  const RankTimes& times() const { return times_; }

 private:
  Taken take(int position);
  void prepare_as_one_process(int position, const MRC_HEAD& head);
  bool is_like_the_one_before(int position, const MRC_HEAD& head);

  const std::string rank_;
  Run* run_;
  const Kestrix_Para asked_;
  std::vector<std::string> names_;
  std::vector<char> broken_;  // of each micrograph, once it has been looked at: 'y' or 'n'
  Picker picker_;
  CapturedStreams streams_;
  int position_ = kPreparing;
  RankTimes times_;
};
