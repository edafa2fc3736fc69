// Standard output and standard error of a part of the work, taken to be printed later or elsewhere.
#pragma once

#include <string>
#include <utility>

/// An open file, closed at the end of its scope.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor();
  int number() const { return number_; }

 private:
  int number_;
};

/// A file in memory, to the end of which everything is written. Ends the run if there is none to be had.
Descriptor memory_file(const char* name);

/// All that lies in a file in memory.
std::string text_in(const Descriptor& file);

/// What was printed on the two streams.
struct Printed {
  std::string out, err;
};

/// Prints it where the streams go, standard output first.
void print(const Printed& printed);

/// Takes what this process prints between begin and end, whatever prints it.
class CapturedStreams {
 public:
  CapturedStreams();

  void begin();

  /// What was printed since begin. The streams go where they went before.
  Printed end();

  /// Forgets what was printed since begin.
  void forget();

  bool is_open() const { return open_; }

 private:
  Descriptor out_, err_, real_out_, real_err_;
  bool open_ = false;
};
