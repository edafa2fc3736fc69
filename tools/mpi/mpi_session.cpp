#include "mpi/mpi_session.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "mpi/leader.h"
#include "mpi/rank_picker.h"
#include "platform/failure.h"
#include "run/stage_timer.h"
#include "session/begin_run.h"
#include "session/check.h"
#include "session/command_line.h"
#include "session/devices.h"
#include "session/learning.h"
#include "session/micrograph_list.h"

namespace {

constexpr char unit[] = "mpi_session";

// Arguments as main gets them, with the device of this rank where there is a choice and the user hasn't made it.
class RankLine {
 public:
  RankLine(std::vector<std::string> texts, const RankPlace& place) : texts_(std::move(texts)) {
    const int device = device_of(place);
    if (device >= 0 && !gives_device()) texts_.insert(texts_.begin() + 1, {"--gid", std::to_string(device)});
    arguments_ = pointers();
  }
  RankLine(const RankLine&) = delete;
  RankLine& operator=(const RankLine&) = delete;

  int argc() const { return static_cast<int>(texts_.size()); }
  char** argv() { return arguments_.data(); }

 private:
  std::vector<char*> pointers() {
    std::vector<char*> all;
    for (std::string& text : texts_) all.push_back(&text[0]);
    all.push_back(nullptr);
    return all;
  }
  bool gives_device() { return kestrix_find_value(argc(), pointers().data(), "gid") > 0; }

  std::vector<std::string> texts_;
  std::vector<char*> arguments_;
};

// --- Rank 0 ---

class FirstRank {
 public:
  FirstRank(const RankPlace& place, Run* run, Book* book)
      : ranks_(place.ranks), run_(run), book_(book), picker_(place, run), leader_(place.ranks) {}

  SessionEnd pick() {
    tells_times_ = ranks_ > 1 && (run_->para.progress || isatty(STDERR_FILENO));
    picker_.prepare();
    book_->expect(static_cast<int>(names().size()));
    share_out();
    for (Group group = leader_.next(); !group.empty(); group = leader_.next())
      for (const int position : group) {
        leader_.take(picker_.pick(position));
        enter(false);
      }
    const auto done = std::chrono::steady_clock::now();
    enter(true);
    std::vector<RankTimes> times = leader_.finish();
    times[0] = picker_.times();
    times[0].idle = std::chrono::duration<double>(std::chrono::steady_clock::now() - done).count();
    put_times(times);
    if (run_->first_head.nx == 0) time_drop();  // nothing was prepared here
    return book_->finish(names());
  }

  // The run can't go on, here.
  [[noreturn]] void fail(int status) {
    if (failing_) abort_ranks(status);
    failing_ = true;
    if (!picker_.streams().is_open()) leave(status);  // what was printed stands where it belongs
    leader_.take(picker_.end_of_run(status));
    enter(true);
    leave(status);
  }

 private:
  const std::vector<std::string>& names() const { return picker_.names(); }

  void share_out() {
    std::vector<const char*> texts;
    for (const std::string& name : names()) texts.push_back(name.c_str());
    leader_.share_out(groups_by_outputs(texts.data(), static_cast<int>(texts.size()), &run_->para));
  }

  // Prints and books what is known of the next micrographs in the list. wait: of all.
  void enter(bool wait) {
    Told told;
    const int all = static_cast<int>(names().size());
    while (entered_ < all && leader_.get(entered_, wait, &told)) {
      print(told.printed);
      told.taken.row.micrograph = names()[static_cast<size_t>(entered_)];
      book_->enter(told.taken);
      entered_++;
    }
    if (leader_.get_first_end(&told) && (wait || told.position <= entered_)) end_as(told);
  }

  [[noreturn]] void end_as(const Told& told) {
    print(told.printed);
    if (ranks_ > 1) safety_note(nullptr, "%s has failed; the run ends.", told.rank.c_str());
    leave(told.status);
  }

  [[noreturn]] void leave(int status) {
    leader_.stop();
    leader_.finish();
    leave_ranks();
    exit(status);
  }

  void put_times(const std::vector<RankTimes>& of_ranks) const {
    if (!tells_times_) return;
    RankTimes sum{};
    std::string counts;
    for (const RankTimes& times : of_ranks) {
      counts += " " + std::to_string(times.micrographs);
      sum.picking += times.picking;
      sum.preparing += times.preparing;
      sum.waiting += times.waiting;
      sum.idle += times.idle;
    }
    const double hundredth = std::max(1e-9, sum.picking + sum.waiting + sum.idle) / 100;
    safety_note(nullptr,
                "%d ranks took%s micrographs; of their time %.2f%% picking (%.2f%% preparing for other sizes), %.3f%% "
                "waiting for the next, %.2f%% idle at the end.",
                ranks_, counts.c_str(), sum.picking / hundredth, sum.preparing / hundredth, sum.waiting / hundredth,
                sum.idle / hundredth);
  }

  int ranks_;
  Run* run_;
  Book* book_;
  RankPicker picker_;
  Leader leader_;
  int entered_ = 0;
  bool tells_times_ = false, failing_ = false;
};

FirstRank* first_rank = nullptr;
[[noreturn]] void fail_at_first(int status) { first_rank->fail(status); }

// Before the other ranks have got anything to do.
[[noreturn]] void send_home(int status) {
  share_texts({}, {});
  leave_ranks();
  exit(status);
}

void refuse_what_needs_one_process(int argc, char** argv) {
  const int watch = kestrix_find_value(argc, argv, "watch");
  if (watch > 0 && strtod(argv[watch], nullptr) > 0)
    KESTRIX_FATAL("--watch works in one process: give it to kestrix, and the finished list to kestrix_mpi");
  const int device = kestrix_find_value(argc, argv, "gid");
  if (device > 0 && names_devices(argv[device]))
    KESTRIX_FATAL(
        "--gid is %s: the ranks of a machine share its devices out by themselves; leave --gid away, or hide devices "
        "by CUDA_VISIBLE_DEVICES",
        argv[device]);
}

// --- The other ranks ---

class OtherRank {
 public:
  OtherRank(const RankPlace& place, Run* run, LeaderLine* leader) : picker_(place, run), leader_(leader) {}

  void pick() {
    picker_.streams().begin();
    picker_.prepare();
    picker_.streams().end();  // rank 0 has said it
    double& waiting = picker_.times().waiting;
    leader_->ask();
    for (Group group = leader_->get(&waiting); !group.empty(); group = leader_->get(&waiting)) {
      leader_->ask();
      for (const int position : group) leader_->tell(picker_.pick(position));
    }
    leader_->leave(picker_.times());
  }

  [[noreturn]] void fail(int status) {
    if (failing_) abort_ranks(status);
    failing_ = true;
    fail_with(picker_.end_of_run(status), picker_.times(), leader_);
  }

  [[noreturn]] static void fail_with(const Told& told, const RankTimes& times, LeaderLine* leader) {
    double waited = 0;
    leader->tell(told);
    if (leader->asked()) leader->get(&waited);
    leader->leave(times);
    leave_ranks();
    exit(EXIT_SUCCESS);  // rank 0 tells the status: launchers end the others at the first that isn't 0
  }

 private:
  RankPicker picker_;
  LeaderLine* leader_;
  bool failing_ = false;
};

OtherRank* other_rank = nullptr;
[[noreturn]] void fail_at_other(int status) { other_rank->fail(status); }

// While the command line is read.
struct Reading {
  CapturedStreams streams;
  std::string rank;
  LeaderLine* leader;
};
Reading* reading = nullptr;
[[noreturn]] void fail_to_read(int status) {
  Told told;
  told.status = status;
  told.rank = reading->rank;
  told.printed = reading->streams.end();
  OtherRank::fail_with(told, {}, reading->leader);
}

}  // namespace

SessionEnd lead_session(const RankPlace& place, int argc, char** argv) {
  set_way_out(send_home);
  refuse_what_needs_one_process(argc, argv);
  CommandLine line(argc, argv);
  const std::vector<std::string> texts(line.argv(), line.argv() + line.argc());
  RankLine own(texts, place);
  Run run{};
  const Shard shard = read_run(own.argc(), own.argv(), &run);
  if (run.para.check) {
    const SessionEnd end{-1, check_micrographs(&run.para) ? 0 : kSomeFailed};
    share_texts(place, {});
    return end;
  }
  refuse_to_learn(&run, "kestrix_mpi");
  Book book(run.para, shard);
  share_texts(place, texts);
  FirstRank rank(place, &run, &book);
  first_rank = &rank;
  set_way_out(fail_at_first);
  const SessionEnd end = rank.pick();
  set_way_out(nullptr);
  free_run(&run);
  return end;
}

void follow_session(const RankPlace& place) {
  std::vector<std::string> texts = share_texts(place, {});
  if (texts.empty()) return;
  LeaderLine leader(static_cast<int>(texts.size()));
  Reading of_line{{}, place.name, &leader};
  reading = &of_line;
  set_way_out(fail_to_read);
  of_line.streams.begin();
  RankLine own(std::move(texts), place);
  Run run{};
  read_run(own.argc(), own.argv(), &run);
  of_line.streams.end();  // rank 0 has said it
  OtherRank rank(place, &run, &leader);
  other_rank = &rank;
  set_way_out(fail_at_other);
  rank.pick();
  set_way_out(nullptr);
  free_run(&run);
}
