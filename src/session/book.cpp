#include "session/book.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "platform/failure.h"
#include "platform/outputs.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "book";

std::string text_of(const char* value) { return is_str_null(value) ? "" : value; }

void add(RunTally* sum, const RunTally& more) {
  sum->picked += more.picked;
  sum->skipped += more.skipped;
  sum->noted += more.noted;
  sum->picks += more.picks;
}

}  // namespace

Book::Book(const Kestrix_Para& asked, const Shard& shard)
    : keeps_going_(asked.keep_going != 0),
      odir_(text_of(asked.odir)),
      summary_file_(text_of(asked.summary)),
      shard_(shard),
      summary_(summary_file_, asked.do_unfinished != 0, shard_heading(shard)),
      progress_(asked.progress != 0) {}

void Book::expect(int micrographs) { expected_ = std::max(expected_, micrographs); }

void Book::enter(const Taken& taken) {
  const std::string& name = taken.row.micrograph;
  if (!taken.problem.empty()) {
    safety_note(name.c_str(), "%s; passed over.", taken.problem.c_str());
    failed_.push_back({name, taken.problem});
  }
  summary_.add(taken.row);
  add(&tally_, taken.tally);
  listed_ += taken.row.findings.listed;
  done_++;
  progress_.tell(done_, std::max(expected_, done_), tally_.picked, listed_, name);
}

// Shares of a list may write into one folder at once: each has a file of its own.
std::string Book::failures_file() const {
  namespace fs = std::filesystem;
  const fs::path folder = summary_file_.empty() ? fs::path(odir_) : fs::path(summary_file_).parent_path();
  const std::string share =
      shard_.of > 0 ? "_" + std::to_string(shard_.number) + "_of_" + std::to_string(shard_.of) : "";
  return (folder / ("kestrix_failed" + share + ".txt")).lexically_normal().string();
}

// A line for each: its path, a tab, and why.
void Book::write_failures() const {
  const std::string name = failures_file();
  if (failed_.empty()) {
    unlink(name.c_str());  // of an earlier session
    return;
  }
  FILE* file = KESTRIX_OUTPUT_OPEN(name.c_str());
  for (const Failed& failed : failed_) fprintf(file, "%s\t%s\n", failed.name.c_str(), failed.problem.c_str());
  KESTRIX_OUTPUT_CLOSE(file);
  safety_note(nullptr, "%d micrographs finished, %zu could not be picked: %s says why.", finished(), failed_.size(),
              name.c_str());
}

SessionEnd Book::finish(const std::vector<std::string>& names) {
  put_tally(&tally_);
  if (keeps_going_) write_failures();
  summary_.finish(names);
  return {finished(), failed_.empty() ? 0 : kSomeFailed};
}
