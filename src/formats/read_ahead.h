// Files that will be wanted soon.
#pragma once

#include <string>
#include <thread>

/// Has the kernel fetch files into its cache while others are worked on, in a thread of its own: where a file isn't cached,
/// asking alone takes a good part of the time that reading it would.
class ReadAhead {
 public:
  ReadAhead() = default;
  ~ReadAhead() { wait(); }
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  /// Begins with a file when the last one has been asked for. A file that isn't there, can't be opened or isn't a regular one
  /// is left alone: who reads it later will tell. Does nothing where there can be no thread.
  void begin(const std::string& name);

 private:
  void wait();

  std::thread thread_;
};
