#include "mpi/rank_picker.h"

#include <chrono>

#include "run/micrograph_image.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

}  // namespace

RankPicker::RankPicker(const RankPlace& place, Run* run)
    : rank_(place.name),
      run_(run),
      asked_(run->para),
      names_(asked_.files, asked_.files + asked_.n_files),
      broken_(names_.size(), 0),
      picker_(run) {}

void RankPicker::prepare() {
  if (asked_.keep_going || names_.empty()) return;
  picker_.prepare_for_list();
  names_.front() = run_->para.files[0];
}

Told RankPicker::pick(int position) {
  const Clock::time_point begin = Clock::now();
  position_ = position;
  streams_.begin();
  Told told;
  told.position = position;
  told.rank = rank_;
  told.taken = take(position);
  told.printed = streams_.end();
  times_.picking += seconds_since(begin);
  times_.micrographs++;
  return told;
}

Told RankPicker::end_of_run(int status) {
  Told told;
  told.position = position_;
  told.status = status;
  told.rank = rank_;
  if (streams_.is_open()) told.printed = streams_.end();
  return told;
}

Taken RankPicker::take(int position) {
  const std::string& name = names_[static_cast<size_t>(position)];
  ImageFacts facts;
  const std::string problem = picker_.look_at(name, &facts);
  if (!problem.empty()) return failed_micrograph(name, problem);
  if (asked_.keep_going) prepare_as_one_process(position, facts.head);
  return picker_.pick(name);
}

// One process prepares where a micrograph is of another size than the one before it, and prints that. This rank has come
// from elsewhere in the list: what it does beyond that is not said.
void RankPicker::prepare_as_one_process(int position, const MRC_HEAD& head) {
  const Clock::time_point begin = Clock::now();
  const std::string& name = names_[static_cast<size_t>(position)];
  const bool is_said = !is_like_the_one_before(position, head);
  if (is_said) picker_.unprepare();
  picker_.prepare_for(name);
  if (!is_said) streams_.forget();
  times_.preparing += seconds_since(begin);
}

bool RankPicker::is_like_the_one_before(int position, const MRC_HEAD& head) {
  for (int before = position - 1; before >= 0; before--) {
    const auto i = static_cast<size_t>(before);
    if (broken_[i] == 'y') continue;
    ImageFacts facts;
    const bool whole = asked_.extract_raw && !is_finished_before(&asked_, names_[i].c_str());
    broken_[i] = problem_of_micrograph(names_[i], asked_, whole, &facts).empty() ? 'n' : 'y';
    if (broken_[i] == 'n') return are_alike(&asked_, facts.head, head);
  }
  return false;
}
