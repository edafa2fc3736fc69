#include "common/output_file.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>

#include "common/options.h"

namespace {

// A refusal ends the process by exit, which ends no object of a function.
std::set<std::string>& begun_files() {
  static std::set<std::string> begun;
  return begun;
}

void remove_begun() {
  for (const std::string& name : begun_files()) unlink(name.c_str());
}

}  // namespace

UnfinishedName::UnfinishedName(const std::string& name)
    : name_(name), unfinished_(name + "." + std::to_string(getpid()) + "~") {
  begun_files().insert(unfinished_);
  static const int registered = atexit(remove_begun);
  if (registered != 0) refuse("cannot keep note of unfinished files");
  std::error_code none;
  const auto there = std::filesystem::status(name, none);
  if (std::filesystem::exists(there) && !std::filesystem::is_regular_file(there))
    refuse("cannot write %s: what is there is no regular file", name.c_str());
}

UnfinishedName::~UnfinishedName() {
  if (begun_files().erase(unfinished_) > 0) unlink(unfinished_.c_str());
}

void UnfinishedName::finish() {
  if (rename(unfinished_.c_str(), name_.c_str()) != 0) refuse("cannot write %s: %m", name_.c_str());
  begun_files().erase(unfinished_);
}

OutputFile::OutputFile(const std::string& name) : name_(name), unfinished_(name) {
  file_ = fopen(unfinished_.c_str(), "w");
  if (!file_) refuse("cannot write %s: %m", name.c_str());
}

OutputFile::~OutputFile() {
  if (file_) fclose(file_);
}

void OutputFile::finish() {
  const bool failed = ferror(file_) != 0;
  const bool closed = fclose(file_) == 0;
  file_ = nullptr;
  if (failed || !closed) refuse("writing %s failed: %m; is the disk full?", name_.c_str());
  unfinished_.finish();
}
