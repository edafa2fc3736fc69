// The leader of a run on MPI, at rank 0: shares the micrographs out to whoever is free, and takes what is told of them. A
// thread of its own speaks with the other ranks, so that rank 0 picks as they do; while it lives no other thread of rank 0
// may use MPI.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "mpi/told.h"

/// Where a rank's time went, seconds.
struct RankTimes {
  double picking = 0;    // its micrographs, reading and preparations included
  double preparing = 0;  // of that, for micrographs of another size
  double waiting = 0;    // for the next index
  double idle = 0;       // behind its last micrograph, until the last of all
  int micrographs = 0;
};

/// A group of micrographs that one rank takes, as positions in the list; empty: there is nothing left to do.
using Group = std::vector<int>;

class Leader {
 public:
  /// Begins to hear the other ranks.
  explicit Leader(int ranks);
  Leader(const Leader&) = delete;
  Leader& operator=(const Leader&) = delete;
  ~Leader();

  /// What there is to do. Until then nobody gets anything.
  void share_out(std::vector<Group> groups);

  /// The next for rank 0.
  Group next();

  /// What rank 0 tells.
  void take(Told told);

  /// Nothing more is shared out.
  void stop();

  /// What was told of a position, once. wait: until it is there, or all other ranks have left. Returns whether it is.
  bool get(int position, bool wait, Told* told);

  /// Of what ends the run the first in the list. Returns whether there is such.
  bool get_first_end(Told* told) const;

  /// Waits until the other ranks have left, and lets them go. Returns the times of all, those of rank 0 empty.
  std::vector<RankTimes> finish();

 private:
  using Clock = std::chrono::steady_clock;

  struct Other {
    bool asks = false;
    int owes = 0;  // micrographs that it has got and not told of
    bool left = false;
    Clock::time_point left_at;
  };

  void lead();
  bool hear();
  void hear_asking(int rank);
  void hear_told(int rank, int length);
  void hear_leaving(int rank);
  void answer(int rank);
  bool may_have(const Other& other) const;

  std::vector<Other> others_;  // by rank; [0] is unused
  std::vector<RankTimes> times_;
  mutable std::mutex mutex_;  // of all below
  std::condition_variable changed_;
  std::vector<Group> groups_;
  size_t next_ = 0;
  bool shared_out_ = false, stopped_ = false;
  int left_ = 0;
  std::map<int, Told> told_, ends_;  // by position
  std::thread thread_;
};

/// What another rank says to the leader. The index of its next micrographs is asked for while it picks those at hand.
class LeaderLine {
 public:
  /// micrographs: in the whole list.
  explicit LeaderLine(int micrographs) : group_(static_cast<size_t>(micrographs) + 1) {}

  /// Asks for the next group, once until it is got.
  void ask();

  /// The group asked for. Waits for it without taking the core away from others.
  Group get(double* waited);

  void tell(const Told& told);

  /// There is nothing more to come. Returns when all have left.
  void leave(const RankTimes& times);

  bool asked() const { return asked_; }

 private:
  std::vector<int> group_;
  bool asked_ = false;
};
