// kestrix_report: a page to look at picks and to choose among them.
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "platform/failure.h"
#include "report/page_writer.h"
#include "report/record.h"
#include "report/settings.h"

namespace {

/// A line on standard error that tells how far the work is, where that is a terminal.
class Progress {
 public:
  explicit Progress(size_t total) : total_(total), shown_(isatty(STDERR_FILENO) != 0) {}

  /// One micrograph is done. For any thread.
  void step() {
#pragma omp critical(kestrix_report_progress)
    {
      done_++;
      const std::chrono::duration<double> passed = Clock::now() - start_;
      const bool due = passed.count() >= next_ || done_ == total_;
      if (shown_ && due) {
        next_ = passed.count() + 0.2;
        const double left = passed.count() / static_cast<double>(done_) * static_cast<double>(total_ - done_);
        fprintf(stderr, "\rKestrix: %zu of %zu micrographs, %.1f a second, %.0f s left ", done_, total_,
                static_cast<double>(done_) / std::max(passed.count(), 1e-3), left);
        if (done_ == total_) fprintf(stderr, "\n");
      }
    }
  }

 private:
  using Clock = std::chrono::steady_clock;
  size_t total_, done_ = 0;
  bool shown_;
  Clock::time_point start_ = Clock::now();
  double next_ = 0;
};

// Reads the micrographs from number `first` on, all cores at work.
std::vector<Record> read_records(const ReportSettings& settings, const PageWriter& page, size_t first, size_t count,
                                 Progress* progress) {
  std::vector<Record> records(count);
#pragma omp parallel for schedule(dynamic)
  for (size_t i = 0; i < count; i++) {
    records[i] = read_record(settings, settings.names[first + i], page.images_apart());
    page.write_images(&records[i], first + i);
    progress->step();
  }
  return records;
}

// So many that few cores wait for the last ones, and memory stays small.
size_t records_at_once() {
  const auto threads = static_cast<size_t>(omp_get_max_threads());
  return (threads * 8 + kMicrographsPerChunk - 1) / kMicrographsPerChunk * kMicrographsPerChunk;
}

}  // namespace

int main(int argc, char** argv) {
  ReportSettings settings;
  if (!settings_from_arguments(argc, argv, &settings)) return 0;
  PageWriter page(settings, settings.names.size());
  Progress progress(settings.names.size());
  size_t broken = 0, picks = 0;
  for (size_t first = 0; first < settings.names.size(); first += records_at_once()) {
    const size_t count = std::min(records_at_once(), settings.names.size() - first);
    const std::vector<Record> records = read_records(settings, page, first, count, &progress);
    for (const Record& record : records) {
      picks += record.picks.x.size();
      broken += !record.problems.empty();
      for (const std::string& problem : record.problems) safety_note(nullptr, "%s", problem.c_str());
    }
    page.add(records);
  }
  const std::string name = page.finish();
  printf("%s: %zu picks in %zu micrographs\n", name.c_str(), picks, settings.names.size());
  return broken > 0 ? 3 : 0;
}
