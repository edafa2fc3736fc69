// The table of a session: a row for each micrograph, written as it is finished, and the list of those that failed.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "run/findings.h"

enum SummaryState { kRowPicked, kRowFinishedBefore, kRowFailed };

/// What the table says of a micrograph.
struct SummaryRow {
  std::string micrograph;
  SummaryState state;
  PickFindings findings;  // zero where it failed
  double seconds;         // to pick it; 0 where that wasn't done
};

/// A row as the table holds it, with its line feed.
std::string summary_line(const SummaryRow& row);

/// Appends rows to a STAR file, each by one write, so that a run killed at any moment leaves whole rows. A session that
/// resumes keeps the rows of what an earlier one has finished.
class Summary {
 public:
  /// file: its name; empty: no table is written. Ends the run where it can't be written, or isn't such a table.
  Summary(const std::string& file, bool resumes);
  Summary(const Summary&) = delete;
  Summary& operator=(const Summary&) = delete;
  ~Summary();

  /// Ends the run on a full disk. Of a micrograph that an earlier session finished its row stays.
  void add(const SummaryRow& row);

  /// Puts the rows in the order of the list. Once, behind the last.
  void finish(const std::vector<std::string>& micrographs);

 private:
  void take_earlier_rows();
  void write_whole(const std::vector<std::string>& lines);
  void append(const std::string& line);

  std::string name_;
  int file_ = -1;
  std::vector<std::string> names_;                      // as they stand in the file
  std::unordered_map<std::string, std::string> lines_;  // the newest of each micrograph
};
