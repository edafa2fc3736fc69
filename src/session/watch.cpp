#include "session/watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "formats/image_diagnosis.h"
#include "session/command_line.h"
#include "session/micrograph_list.h"

namespace {

constexpr double kSettleSeconds = 2;

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// By its name alone.
bool may_be_micrograph(const std::string& path, bool any_format) {
  const std::string file = std::filesystem::path(path).filename().string();
  const std::string name = any_format ? plain_image_name(file) : file;
  return name[0] != '.' && (ends_with(name, ".mrc") || ends_with(name, ".mrcs")) && !is_own_image_of_a_micrograph(path);
}

long long nanoseconds(const timespec& t) { return t.tv_sec * 1000000000LL + t.tv_nsec; }

}  // namespace

Watch::Watch(std::vector<std::string> folders, std::string list, const ImageOptions& options)
    : folders_(std::move(folders)), list_(std::move(list)), options_(options) {
  events_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (events_ < 0) return;
  for (const std::string& folder : folders_)
    inotify_add_watch(events_, folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE);
}

Watch::~Watch() {
  if (events_ >= 0) close(events_);
}

void Watch::read_list() {
  struct stat status {};
  if (list_.empty() || stat(list_.c_str(), &status) != 0 || nanoseconds(status.st_mtim) == list_changed_) return;
  list_changed_ = nanoseconds(status.st_mtim);
  for (const std::string& name : read_micrograph_list(list_.c_str()).names) look_at(name);
}

void Watch::look_at(const std::string& name) {
  if (taken_.count(name) == 0) pending_.emplace(name, Seen{-1, -1, Clock::now()});
}

// Whether it is whole and hasn't changed for long enough: by the clock of this process, as a file server may have another.
bool Watch::is_settled(const std::string& name) {
  struct stat status {};
  Seen& seen = pending_[name];
  if (stat(name.c_str(), &status) != 0) return false;
  const long long changed = nanoseconds(status.st_mtim);
  if (seen.size != status.st_size || seen.changed != changed) seen = {status.st_size, changed, Clock::now()};
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const double age = 1e-9 * static_cast<double>(nanoseconds(now) - changed);
  const double watched = std::chrono::duration<double>(Clock::now() - seen.since).count();
  return (watched >= kSettleSeconds || age >= 10 * kSettleSeconds || (events_ >= 0 && age >= kSettleSeconds)) &&
         look_at_image(name.c_str(), options_, false).problem.empty();
}

std::vector<std::string> Watch::take_new() {
  std::error_code gone;
  for (const std::string& folder : folders_)
    for (const auto& entry : std::filesystem::directory_iterator(folder, gone))
      if (may_be_micrograph(entry.path().string(), options_.any_format != 0)) look_at(entry.path().string());
  read_list();
  std::vector<std::string> settled;
  for (const auto& entry : pending_)
    if (is_settled(entry.first)) settled.push_back(entry.first);
  for (const std::string& name : settled) {
    pending_.erase(name);
    taken_.insert(name);
  }
  return settled;
}

void Watch::wait(double seconds) const {
  pollfd file{events_, POLLIN, 0};
  if (poll(&file, events_ >= 0 ? 1 : 0, static_cast<int>(1000 * seconds)) <= 0) return;
  char events[4096];
  while (read(events_, events, sizeof events) > 0) continue;
}

std::vector<std::string> Watch::incomplete() const {
  std::vector<std::string> names;
  for (const auto& entry : pending_) names.push_back(entry.first);
  return names;
}
