// The files of the page: one, or a folder of an index, pictures and scripts of coordinates.
#pragma once

#include <string>
#include <vector>

#include "report/page_data.h"
#include "report/record.h"
#include "report/settings.h"

class PageWriter {
 public:
  /// Makes the folders. Refuses where that can't be done.
  PageWriter(const ReportSettings& settings, size_t micrographs);

  /// Whether pictures are files of their own, and small ones are wanted too.
  bool images_apart() const { return images_apart_; }

  /// Writes the pictures of a record, if they are files of their own, and frees them. For any thread.
  void write_images(Record* record, size_t number) const;

  /// Adds the next records, whole chunks of them but for the last call.
  void add(const std::vector<Record>& records);

  /// Writes the page itself, which so appears last. Returns its name.
  std::string finish();

 private:
  std::string file(const std::string& name) const;

  const ReportSettings& settings_;
  bool images_apart_;
  ReportIndex index_;
  size_t chunks_ = 0;
  std::string data_;  // scripts that stand in the page
};
