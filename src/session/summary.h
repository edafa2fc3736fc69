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

/// A table as it stands in a file: what is before its block, and its whole rows, the newest of each micrograph.
struct SummaryTable {
  bool valid = false;              // it is such a table
  std::string heading;             // the first line where that is a comment, with its line feed; else empty
  std::vector<std::string> names;  // in their order, as star_word gives them
  std::unordered_map<std::string, std::string> lines;  // by them, with their line feed
};

/// Reads a table; a row that isn't whole is passed over. A file that can't be read is no valid table.
SummaryTable read_summary_table(const std::string& file);

/// The text of a table before its rows.
std::string summary_head(const std::string& heading);

/// Appends rows to a STAR file, each by one write, so that a run killed at any moment leaves whole rows. A session that
/// resumes keeps the rows of what an earlier one has finished.
class Summary {
 public:
  /// file: its name; empty: no table is written. heading: the share of the list that it is of, empty: all of it. Ends the
  /// run where it can't be written, or isn't such a table.
  Summary(const std::string& file, bool resumes, const std::string& heading);
  Summary(const Summary&) = delete;
  Summary& operator=(const Summary&) = delete;
  ~Summary();

  /// Ends the run on a full disk. Of a micrograph that an earlier session finished its row stays.
  void add(const SummaryRow& row);

  /// Puts the rows in the order of the list. Once, behind the last. Rows of micrographs that aren't in it stay behind
  /// them, but where an earlier session had another share: that row is now another table's.
  void finish(const std::vector<std::string>& micrographs);

 private:
  void take_earlier_rows();
  void write_whole(const std::vector<std::string>& lines);
  void append(const std::string& line);

  std::string name_, heading_;
  int file_ = -1;
  bool keeps_others_ = true;
  SummaryTable table_;
};
