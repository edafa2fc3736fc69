#include "common/broken_lines.h"

#include "common/options.h"
#include "platform/failure.h"

namespace {

constexpr long kPrintedPerFile = 10;
constexpr int kDoneButForSome = 3;

}  // namespace

void BrokenLines::print_uncounted() {
  if (lines_in_file_ > kPrintedPerFile)
    safety_note(file_.c_str(), "%ld more lines that can't be read.", lines_in_file_ - kPrintedPerFile);
}

void BrokenLines::note_line(const std::string& file, long number, const std::string& reason) {
  if (strict_) refuse("%s, line %ld: %s", file.c_str(), number, reason.c_str());
  any_ = true;
  if (file != file_) {
    print_uncounted();
    file_ = file;
    lines_in_file_ = 0;
  }
  if (++lines_in_file_ <= kPrintedPerFile) safety_note(file.c_str(), "line %ld left out: %s", number, reason.c_str());
}

void BrokenLines::note_file(const std::string& file, const std::string& reason) {
  if (strict_) refuse("%s: %s", file.c_str(), reason.c_str());
  any_ = true;
  safety_note(file.c_str(), "%s", reason.c_str());
}

int BrokenLines::finish() {
  print_uncounted();
  lines_in_file_ = 0;
  return any_ ? kDoneButForSome : 0;
}
