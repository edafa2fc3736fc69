#include "common/broken_lines.h"

#include <utility>

#include "common/options.h"
#include "platform/failure.h"

namespace {

constexpr long kPrintedPerFile = 10;
constexpr int kDoneButForSome = 3;

void print_note(const std::string& file, const std::string& text) { safety_note(file.c_str(), "%s", text.c_str()); }

}  // namespace

BrokenLines::BrokenLines(bool strict) : take_(print_note), strict_(strict) {}

BrokenLines::BrokenLines(std::function<void(const std::string&, const std::string&)> take) : take_(std::move(take)) {}

void BrokenLines::print_uncounted() {
  if (lines_in_file_ > kPrintedPerFile)
    take_(file_, std::to_string(lines_in_file_ - kPrintedPerFile) + " more lines that can't be read");
}

void BrokenLines::note_line(const std::string& file, long number, const std::string& reason) {
  if (strict_) refuse("%s, line %ld: %s", file.c_str(), number, reason.c_str());
  any_ = true;
  if (file != file_) {
    print_uncounted();
    file_ = file;
    lines_in_file_ = 0;
  }
  if (++lines_in_file_ <= kPrintedPerFile) take_(file, "line " + std::to_string(number) + " left out: " + reason);
}

void BrokenLines::note_file(const std::string& file, const std::string& reason) {
  if (strict_) refuse("%s: %s", file.c_str(), reason.c_str());
  any_ = true;
  take_(file, reason);
}

int BrokenLines::finish() {
  print_uncounted();
  lines_in_file_ = 0;
  return any_ ? kDoneButForSome : 0;
}
