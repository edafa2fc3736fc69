#include "mpi/leader.h"

#include <mpi.h>

#include <csignal>
#include <cstring>

namespace {

enum Tag { kAsk, kGive, kTell, kLeave, kGo };

constexpr int kLeaderRank = 0;

// Seconds between looks for messages where there were none: far below the time of a micrograph, and hardly any work.
constexpr std::chrono::microseconds kPause(500);

// An index is given ahead, while its rank still picks, as long as there are so many groups for each rank. Towards the end
// only who is free gets one, since a rank might sit on it.
constexpr size_t kAheadGroups = 4;

}  // namespace

Leader::Leader(int ranks) : others_(static_cast<size_t>(ranks)), times_(static_cast<size_t>(ranks)), left_(0) {
  if (ranks == 1) return;
  // Signals are for the thread that picks.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  thread_ = std::thread([this] { lead(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Leader::~Leader() {
  if (thread_.joinable()) thread_.detach();
}

void Leader::share_out(std::vector<Group> groups) {
  const std::lock_guard<std::mutex> lock(mutex_);
  groups_ = std::move(groups);
  shared_out_ = true;
}

Group Leader::next() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return stopped_ || next_ == groups_.size() ? Group() : groups_[next_++];
}

void Leader::take(Told told) {
  const std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = stopped_ || told.ends_run();
  std::map<int, Told>& place = told.ends_run() ? ends_ : told_;
  place.emplace(told.position, std::move(told));
  changed_.notify_all();
}

void Leader::stop() {
  const std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = true;
}

bool Leader::get(int position, bool wait, Told* told) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto is_there = [&] { return told_.count(position) > 0; };
  if (wait) changed_.wait(lock, [&] { return is_there() || left_ + 1 == static_cast<int>(others_.size()); });
  if (!is_there()) return false;
  *told = std::move(told_[position]);
  told_.erase(position);
  return true;
}

bool Leader::get_first_end(Told* told) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (ends_.empty()) return false;
  *told = ends_.begin()->second;
  return true;
}

std::vector<RankTimes> Leader::finish() {
  if (thread_.joinable()) thread_.join();
  const Clock::time_point end = Clock::now();
  for (size_t rank = 1; rank < others_.size(); rank++)
    times_[rank].idle = std::chrono::duration<double>(end - others_[rank].left_at).count();
  for (size_t rank = 1; rank < others_.size(); rank++)
    MPI_Send(nullptr, 0, MPI_BYTE, static_cast<int>(rank), kGo, MPI_COMM_WORLD);
  return times_;
}

// --- In the thread ---

void Leader::lead() {
  for (;;) {
    const bool heard = hear();
    for (size_t rank = 1; rank < others_.size(); rank++)
      if (others_[rank].asks) answer(static_cast<int>(rank));
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (left_ + 1 == static_cast<int>(others_.size())) return changed_.notify_all();
    }
    if (!heard) std::this_thread::sleep_for(kPause);
  }
}

// Hears one message. Returns whether there was any.
bool Leader::hear() {
  int there = 0;
  MPI_Status status;
  MPI_Iprobe(MPI_ANY_SOURCE, MPI_ANY_TAG, MPI_COMM_WORLD, &there, &status);
  if (!there) return false;
  int length = 0;
  MPI_Get_count(&status, MPI_BYTE, &length);
  if (status.MPI_TAG == kAsk) hear_asking(status.MPI_SOURCE);
  if (status.MPI_TAG == kTell) hear_told(status.MPI_SOURCE, length);
  if (status.MPI_TAG == kLeave) hear_leaving(status.MPI_SOURCE);
  return true;
}

void Leader::hear_asking(int rank) {
  MPI_Recv(nullptr, 0, MPI_BYTE, rank, kAsk, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
  others_[static_cast<size_t>(rank)].asks = true;
}

void Leader::hear_told(int rank, int length) {
  std::string bytes(static_cast<size_t>(length), 0);
  MPI_Recv(&bytes[0], length, MPI_BYTE, rank, kTell, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
  others_[static_cast<size_t>(rank)].owes--;
  take(unpack(bytes));
}

void Leader::hear_leaving(int rank) {
  RankTimes& times = times_[static_cast<size_t>(rank)];
  MPI_Recv(&times, sizeof times, MPI_BYTE, rank, kLeave, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
  others_[static_cast<size_t>(rank)].left_at = Clock::now();
  const std::lock_guard<std::mutex> lock(mutex_);
  left_++;
}

bool Leader::may_have(const Other& other) const {
  if (stopped_) return true;  // an answer, that is: none
  if (!shared_out_) return false;
  const size_t open = groups_.size() - next_;
  return open == 0 || other.owes <= 0 || open > kAheadGroups * others_.size();
}

void Leader::answer(int rank) {
  Other& other = others_[static_cast<size_t>(rank)];
  Group group;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!may_have(other)) return;
    if (!stopped_ && next_ < groups_.size()) group = groups_[next_++];
  }
  other.asks = false;
  other.owes += static_cast<int>(group.size());
  MPI_Send(group.data(), static_cast<int>(group.size()), MPI_INT, rank, kGive, MPI_COMM_WORLD);
}

// --- At the other ranks ---

namespace {

// Until a message is there, without taking the core away from those who pick.
void wait_for(Tag tag, MPI_Status* status) {
  int there = 0;
  for (int looks = 0; !there; looks++) {
    MPI_Iprobe(kLeaderRank, tag, MPI_COMM_WORLD, &there, status);
    if (!there && looks > 20) std::this_thread::sleep_for(kPause / 5);
  }
}

}  // namespace

void LeaderLine::ask() {
  if (asked_) return;
  MPI_Send(nullptr, 0, MPI_BYTE, kLeaderRank, kAsk, MPI_COMM_WORLD);
  asked_ = true;
}

Group LeaderLine::get(double* waited) {
  const auto begin = std::chrono::steady_clock::now();
  MPI_Status status;
  wait_for(kGive, &status);
  int length = 0;
  MPI_Recv(group_.data(), static_cast<int>(group_.size()), MPI_INT, kLeaderRank, kGive, MPI_COMM_WORLD, &status);
  MPI_Get_count(&status, MPI_INT, &length);
  asked_ = false;
  *waited += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return {group_.begin(), group_.begin() + length};
}

void LeaderLine::tell(const Told& told) {
  const std::string bytes = pack(told);
  MPI_Send(bytes.data(), static_cast<int>(bytes.size()), MPI_BYTE, kLeaderRank, kTell, MPI_COMM_WORLD);
}

void LeaderLine::leave(const RankTimes& times) {
  MPI_Send(&times, sizeof times, MPI_BYTE, kLeaderRank, kLeave, MPI_COMM_WORLD);
  MPI_Status status;
  wait_for(kGo, &status);
  MPI_Recv(nullptr, 0, MPI_BYTE, kLeaderRank, kGo, MPI_COMM_WORLD, &status);
}
