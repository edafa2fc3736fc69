#include "session/devices.h"

#include <poll.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <new>
#include <vector>

#include "platform/device.h"
#include "platform/failure.h"
#include "run/stage_timer.h"
#include "session/device_process.h"

namespace {

constexpr char unit[] = "devices";
constexpr int kNone = -1;

// --- Which devices ---

// The numbers of the devices that can be used. Asked for in a process of its own: children of one that has asked CUDA
// can't use it.
std::vector<int> usable_devices() {
  Pipe answers = new_pipe();
  const pid_t child = fork();
  if (child == 0) {
    int count = 0;
    if (cudaGetDeviceCount(&count) != cudaSuccess) count = 0;
    cudaDeviceProp properties;
    for (int device = 0; device < count; device++)
      if (cudaGetDeviceProperties(&properties, device) == cudaSuccess &&
          write(answers.to.number(), &device, sizeof device) < 0)
        break;
    _exit(EXIT_SUCCESS);
  }
  answers.to = Descriptor();
  std::vector<int> devices;
  for (int device; read(answers.from.number(), &device, sizeof device) == sizeof device;) devices.push_back(device);
  waitpid(child, nullptr, 0);
  return devices;
}

// The numbers of a list such as 0,1,3. Ends the run if it is none.
std::vector<int> numbers_of(const std::string& list) {
  std::vector<int> numbers;
  for (size_t at = 0; at <= list.size();) {
    const size_t end = std::min(list.find(',', at), list.size());
    const std::string number = list.substr(at, end - at);
    if (number.empty() || number.size() > 4 || number.find_first_not_of("0123456789") != std::string::npos)
      KESTRIX_FATAL("--gid is %s: it must be a number, a list of numbers such as 0,1,2, or all", list.c_str());
    numbers.push_back(std::stoi(number));
    at = end + 1;
  }
  return numbers;
}

std::vector<int> devices_of(const char* value) {
  std::vector<int> usable = usable_devices();
  if (usable.empty()) return {0};  // whose process says that there is none
  if (strcasecmp(value, "all") == 0) return usable;
  std::vector<int> devices = numbers_of(value);
  for (const int device : devices)
    if (std::find(usable.begin(), usable.end(), device) == usable.end())
      KESTRIX_FATAL("--gid is %s, and there is no device %d that can be used; gpu_probe lists those that can", value,
                    device);
  return devices;
}

// --- The run ---

// A count that the processes of a run share.
class SharedCounter {
 public:
  SharedCounter() : memory_(mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    if (memory_ == MAP_FAILED) KESTRIX_FATAL("no memory to share with processes: %s", strerror(errno));
    counter_ = new (memory_) Counter(0);
  }
  SharedCounter(const SharedCounter&) = delete;
  SharedCounter& operator=(const SharedCounter&) = delete;
  ~SharedCounter() { munmap(memory_, sizeof(Counter)); }

  Counter* get() const { return counter_; }

  /// Nothing more is given out.
  void stop() { *counter_ = std::numeric_limits<int>::max() / 2; }

 private:
  void* memory_;
  Counter* counter_;
};

struct Member {
  DeviceProcess process;
  std::string inbox;    // bytes of notes that are not complete
  Printed preparation;  // until it is printed
  RunTally tally{};
  bool ready = false;
  int begun = kNone;  // the micrograph that it is at
  int status = 0;     // as waitpid gives it, once it has ended
};

class Session {
 public:
  Session(const DeviceWork& work, const std::vector<int>& devices) : go_(new_pipe()) {
    for (const int device : devices)
      members_.push_back({start_device_process(work, device, go_.from.number(), counter_.get()), "", {}});
  }

  // To the last micrograph. Returns their number; a process that fails ends the run.
  int run() {
    while (any_alive()) {
      wait_for_notes();
      if (!begun_ && all_ready()) begin();
      print_in_order();
    }
    if (const Member* failed = first_failed()) end_as(*failed);
    put_sum_of_tallies();
    return micrographs_;
  }

 private:
  bool any_alive() const {
    return std::any_of(members_.begin(), members_.end(), [](const Member& m) { return m.process.notes.number() >= 0; });
  }
  bool all_ready() const {
    return std::all_of(members_.begin(), members_.end(), [](const Member& m) { return m.ready; });
  }

  // All print the same of their preparation: that of the first is shown.
  void begin() {
    begun_ = true;
    print(members_.front().preparation);
    const std::string words(members_.size(), '!');
    if (write(go_.to.number(), words.data(), words.size()) < 0) KESTRIX_FATAL("the processes don't hear");
  }

  void wait_for_notes() {
    std::vector<pollfd> files;
    for (const Member& member : members_) files.push_back({member.process.notes.number(), POLLIN, 0});
    if (poll(files.data(), files.size(), -1) < 0) return;
    for (size_t i = 0; i < members_.size(); i++)
      if (files[i].revents) read_notes(members_[i]);
  }

  void read_notes(Member& member) {
    char bytes[65536];
    const ssize_t n = read(member.process.notes.number(), bytes, sizeof bytes);
    if (n < 0 && errno == EINTR) return;
    if (n <= 0) return take_end(member);
    member.inbox.append(bytes, static_cast<size_t>(n));
    Note note;
    while (member.inbox.size() >= sizeof note) {
      memcpy(&note, member.inbox.data(), sizeof note);
      const size_t length = sizeof note + note.out + note.err;
      if (member.inbox.size() < length) return;
      take_note(member, note,
                {member.inbox.substr(sizeof note, note.out), member.inbox.substr(sizeof note + note.out, note.err)});
      member.inbox.erase(0, length);
    }
  }

  void take_note(Member& member, const Note& note, Printed printed) {
    micrographs_ = note.micrographs;
    member.tally = note.tally;
    if (note.kind == kReady) {
      member.ready = true;
      member.preparation = std::move(printed);
    } else if (note.kind == kBegun) {
      member.begun = note.micrograph;
    } else {
      member.begun = kNone;
      finished_[note.micrograph] = std::move(printed);
    }
  }

  // A process has closed its pipe. Where it has failed the others finish what they are at, or go if they haven't begun.
  void take_end(Member& member) {
    member.process.notes = Descriptor();
    waitpid(member.process.pid, &member.status, 0);
    if ((member.status == 0 && member.ready) || sent_away_) return;
    counter_.stop();
    failed_.push_back(&member);
    sent_away_ = !begun_;
    if (!sent_away_) return;
    for (const Member& other : members_)
      if (other.process.notes.number() >= 0) kill(other.process.pid, SIGTERM);
  }

  void put_sum_of_tallies() const {
    RunTally sum{};
    for (const Member& member : members_) {
      sum.picked += member.tally.picked;
      sum.skipped += member.tally.skipped;
      sum.noted += member.tally.noted;
      sum.picks += member.tally.picks;
    }
    put_tally(&sum);
  }

  void print_in_order() {
    for (auto next = finished_.find(printed_); next != finished_.end(); next = finished_.find(++printed_)) {
      print(next->second);
      finished_.erase(next);
    }
  }

  // Of the processes that failed the one at the first micrograph, or before any.
  const Member* first_failed() const {
    const auto earlier = [](const Member* a, const Member* b) { return a->begun < b->begun; };
    const auto first = std::min_element(failed_.begin(), failed_.end(), earlier);
    return first == failed_.end() ? nullptr : *first;
  }

  [[noreturn]] void end_as(const Member& member) const {
    if (!begun_) print(member.preparation);
    print({text_in(member.process.out), text_in(member.process.err)});
    const int device = member.process.device;
    if (WIFSIGNALED(member.status)) {
      const int signal = WTERMSIG(member.status);
      safety_note(nullptr, "the process for device %d was ended by signal %d (%s); the run ends.", device, signal,
                  strsignal(signal));
      end_run(128 + signal);
    }
    const int status = WEXITSTATUS(member.status);  // 0 where an option is not known
    if (status != 0) safety_note(nullptr, "the process for device %d has failed; the run ends.", device);
    end_run(status);
  }

  SharedCounter counter_;
  Pipe go_;
  std::vector<Member> members_;
  std::vector<const Member*> failed_;
  bool begun_ = false;      // the processes have been told to begin
  bool sent_away_ = false;  // or to go, one of them having failed before
  int micrographs_ = 0;
  int printed_ = 0;                  // micrographs whose output is printed
  std::map<int, Printed> finished_;  // output to be printed once that of the earlier ones is
};

}  // namespace

bool names_devices(const char* value) { return strchr(value, ',') || strcasecmp(value, "all") == 0; }

int pick_on_devices(int argc, char** argv, int value_at) {
  const std::vector<int> devices = devices_of(argv[value_at]);
  const int micrographs = Session({argc, argv, value_at, static_cast<int>(devices.size())}, devices).run();
  time_drop();  // the preparation, whose time the processes have told
  return micrographs;
}
