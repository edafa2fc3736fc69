// Files that are written under a name of their own and appear under their final one when they are complete.
#pragma once

#include <cstdio>
#include <string>

/// The name that a file has while it is written: the final one, the process's number and "~". What stands there is removed
/// when this object ends, or the process by a refusal, unless the file got its final name.
class UnfinishedName {
 public:
  explicit UnfinishedName(const std::string& name);
  ~UnfinishedName();
  UnfinishedName(const UnfinishedName&) = delete;
  UnfinishedName& operator=(const UnfinishedName&) = delete;

  const char* c_str() const { return unfinished_.c_str(); }

  /// Gives the file its final name. Refuses where that can't be done.
  void finish();

 private:
  std::string name_, unfinished_;
};

class OutputFile {
 public:
  /// Begins the file. Refuses a name that can't be written, and one of something else than a regular file.
  explicit OutputFile(const std::string& name);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  FILE* stream() { return file_; }

  /// Gives the file its name. Refuses where anything of it could not be written.
  void finish();

 private:
  std::string name_;
  UnfinishedName unfinished_;
  FILE* file_ = nullptr;
};
