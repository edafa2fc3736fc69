// Micrographs that appear while a session runs.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <unordered_set>
#include <vector>

#include "formats/image_file.h"

/// Looks for new micrographs in folders and in a list. A file counts once it is as long as its header says and hasn't
/// changed for two seconds; hidden files, images of this program and files of other kinds don't count.
class Watch {
 public:
  /// list: a file of names, read anew when it changes; empty: none.
  Watch(std::vector<std::string> folders, std::string list, const ImageOptions& options);
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch();

  /// One more to wait for, whatever its name ends with.
  void look_at(const std::string& name);

  /// Those that have become whole since the last call, in the order of their names; each once.
  std::vector<std::string> take_new();

  /// Waits until something happens in a folder, or for so long.
  void wait(double seconds) const;

  /// What was seen and has never become whole.
  std::vector<std::string> incomplete() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Seen {
    long long size, changed;  // bytes; time of the last change, nanoseconds
    Clock::time_point since;  // when it was first seen so
  };

  bool is_settled(const std::string& name);
  void read_list();

  std::vector<std::string> folders_;
  std::string list_;
  ImageOptions options_;
  long long list_changed_ = -1;
  int events_ = -1;  // of inotify; -1 where there is none
  std::unordered_set<std::string> taken_;
  std::map<std::string, Seen> pending_;
};
