#include "session/summary.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "formats/star_blocks.h"
#include "platform/failure.h"
#include "platform/outputs.h"

namespace {

constexpr char unit[] = "summary";
constexpr char kBlock[] = "data_kestrix_micrographs";
constexpr char kHead[] =
    "\ndata_kestrix_micrographs\n\nloop_\n_rlnMicrographName #1\n_kestrixPicks #2\n_kestrixCandidates #3\n"
    "_kestrixClosedCells #4\n_kestrixClosedShare #5\n_kestrixMeanScore #6\n_kestrixBestScore #7\n_kestrixSeconds #8\n"
    "_kestrixState #9\n";

constexpr const char* kStates[] = {"picked", "finished_before", "failed"};

// A row's micrograph as its line holds it.
std::string first_word(const std::string& line) {
  const char quote = line[0] == '"' || line[0] == '\'' ? line[0] : ' ';
  return line.substr(0, line.find(quote, 1) + (quote == ' ' ? 0 : 1));
}

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

std::string summary_line(const SummaryRow& row) {
  const PickFindings& f = row.findings;
  char numbers[160];
  snprintf(numbers, sizeof numbers, " %6d %6d %6d %8.4f %9.6f %9.6f %9.3f ", f.listed, f.candidates, f.cells_closed,
           static_cast<double>(f.closed), static_cast<double>(f.mean_score), static_cast<double>(f.best_score),
           row.seconds);
  return star_word(row.micrograph) + numbers + kStates[row.state] + "\n";
}

std::string summary_head(const std::string& heading) { return heading + kHead; }

SummaryTable read_summary_table(const std::string& file) {
  SummaryTable table;
  std::ifstream text(file);
  for (std::string line; std::getline(text, line);) {
    if (!table.valid && table.heading.empty() && line[0] == '#') table.heading = line + "\n";
    table.valid = table.valid || line == kBlock;
    const bool whole = !text.eof();  // the last line ends with a line feed
    const bool is_row = table.valid && whole && !line.empty() && line[0] != '_' && line != kBlock && line != "loop_";
    if (!is_row) continue;
    const std::string name = first_word(line);
    if (table.lines.count(name) == 0) table.names.push_back(name);
    table.lines[name] = line + "\n";
  }
  return table;
}

Summary::Summary(const std::string& file, bool resumes, const std::string& heading) : name_(file), heading_(heading) {
  if (name_.empty()) return;
  if (resumes) take_earlier_rows();
  std::vector<std::string> lines;
  for (const std::string& name : table_.names) lines.push_back(table_.lines[name]);
  write_whole(lines);
}

Summary::~Summary() {
  if (file_ >= 0) close(file_);
}

void Summary::take_earlier_rows() {
  if (access(name_.c_str(), R_OK) != 0) return;
  table_ = read_summary_table(name_);
  keeps_others_ = table_.heading == heading_;
  if (!table_.valid)
    KESTRIX_FATAL("--summary %s is there and is no summary; give another name or remove it", name_.c_str());
}

// The whole table anew, under its name when it is complete.
void Summary::write_whole(const std::vector<std::string>& lines) {
  if (file_ >= 0) close(file_);
  FILE* table = KESTRIX_OUTPUT_OPEN(name_.c_str());
  fputs(summary_head(heading_).c_str(), table);
  for (const std::string& line : lines) fputs(line.c_str(), table);
  KESTRIX_OUTPUT_CLOSE(table);
  file_ = open(name_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (file_ < 0) KESTRIX_FATAL("--summary %s can't be written: %s", name_.c_str(), strerror(errno));
}

void Summary::append(const std::string& line) {
  const ssize_t written = write(file_, line.data(), line.size());
  if (written == static_cast<ssize_t>(line.size())) return;
  // A torn row must not stay.
  const off_t end = written > 0 ? lseek(file_, 0, SEEK_END) - written : -1;
  if (end >= 0 && ftruncate(file_, end) != 0) KESTRIX_WARNING("the last row of %s isn't whole", name_.c_str());
  KESTRIX_FATAL("writing %s failed, is there space left", name_.c_str());
}

void Summary::add(const SummaryRow& row) {
  if (name_.empty()) return;
  const std::string line = summary_line(row), name = first_word(line);
  const auto earlier = table_.lines.find(name);
  const bool is_new = earlier == table_.lines.end();
  if (!is_new && row.state == kRowFinishedBefore && !ends_with(earlier->second, " failed\n")) return;
  if (is_new) table_.names.push_back(name);
  table_.lines[name] = line;
  append(line);
}

void Summary::finish(const std::vector<std::string>& micrographs) {
  if (name_.empty()) return;
  std::vector<std::string> lines;
  for (const std::string& micrograph : micrographs) {
    const auto found = table_.lines.find(star_word(micrograph));
    if (found == table_.lines.end()) continue;
    lines.push_back(found->second);
    table_.lines.erase(found);
  }
  for (const std::string& name : table_.names)  // of micrographs that are no longer in the list
    if (keeps_others_ && table_.lines.count(name) > 0) lines.push_back(table_.lines[name]);
  write_whole(lines);
}
