// What a session keeps of its micrographs: the summary, those that failed, the numbers, how far it is.
#pragma once

#include <string>
#include <vector>

#include "session/picker.h"
#include "session/progress.h"
#include "session/shard.h"
#include "session/summary.h"

/// How a session ended.
struct SessionEnd {
  int finished;  // micrographs that have their lists; -1 where they were only looked through
  int status;    // of the process: 3 where any failed, or where --check has found problems
};

constexpr int kSomeFailed = 3;

class Book {
 public:
  /// asked: the parameters before any preparation; shard: the share of the list that the session takes.
  Book(const Kestrix_Para& asked, const Shard& shard);

  /// So many micrographs are known of.
  void expect(int micrographs);

  /// The next micrograph that the session is through with, in the order of the list.
  void enter(const Taken& taken);

  /// Behind the last: tells the numbers, writes what failed and the whole summary. names: of the session, in their order.
  SessionEnd finish(const std::vector<std::string>& names);

 private:
  std::string failures_file() const;
  void write_failures() const;
  int finished() const { return done_ - static_cast<int>(failed_.size()); }

  struct Failed {
    std::string name, problem;
  };

  bool keeps_going_;
  std::string odir_, summary_file_;
  Shard shard_;
  int expected_ = 0, done_ = 0;
  RunTally tally_{};
  long listed_ = 0;  // picks, those of lists that were there before included
  std::vector<Failed> failed_;
  Summary summary_;
  Progress progress_;
};
