#include "lists/pick_list.h"

#include <charconv>
#include <cmath>
#include <fstream>

#include "boxfile.h"
#include "common/star_reader.h"
#include "compute/text_numbers.h"

namespace {

constexpr int kCoordinateX = 0, kCoordinateY = 1, kPsi = 2, kClass = 3, kScore = 4;
constexpr const char* kStarColumns[] = {"_rlnCoordinateX", "_rlnCoordinateY", "_rlnAnglePsi", "_rlnClassNumber",
                                        "_rlnAutopickFigureOfMerit"};

bool read_number(std::string_view word, double* number) {
  if (!word.empty() && word[0] == '+') word.remove_prefix(1);
  const auto [end, problem] = std::from_chars(word.data(), word.data() + word.size(), *number);
  return problem == std::errc() && end == word.data() + word.size();
}

bool is_coordinate(double number) { return std::isfinite(number) && std::fabs(number) < 1e9; }

// The words of a line as finite numbers. Returns what is wrong with it, or nothing.
std::string read_numbers(const std::vector<std::string_view>& words, size_t count, double* numbers) {
  for (size_t i = 0; i < count; i++)
    if (!read_number(words[i], &numbers[i])) return "'" + std::string(words[i]) + "' is not a number";
  return {};
}

// Box edges are whole numbers; those of other programs may have a fraction, which counts.
std::string box_pick(const std::vector<std::string_view>& words, ListPick* pick) {
  if (words.size() < 4) return "a box needs x, y, width and height, and here are " + std::to_string(words.size());
  double numbers[7] = {0, 0, 0, 0, NAN, 0, 0};
  std::string problem = read_numbers(words, std::min<size_t>(words.size(), 7), numbers);
  if (!problem.empty()) return problem;
  for (int i = 0; i < 4; i++)
    if (!is_coordinate(numbers[i])) return "a box can't be there";
  pick->width = saturating_int(numbers[2]);
  pick->height = saturating_int(numbers[3]);
  const int left = pick->width / 2;
  const int below = pick->height / 2;
  pick->x = numbers[0] + left;
  pick->y = numbers[1] + below;
  pick->score = static_cast<float>(numbers[4]);
  pick->template_number = saturating_int(numbers[5]);
  pick->psi = static_cast<float>(numbers[6]);
  return {};
}

std::string star_pick(const StarRow& row, const StarReader& table, ListPick* pick) {
  if (row.words.size() < table.columns())
    return std::to_string(row.words.size()) + " words for " + std::to_string(table.columns()) + " columns";
  double numbers[5] = {0, 0, 0, 0, NAN};
  for (int i = 0; i < 5; i++) {
    const int column = table.column(kStarColumns[i]);
    if (column < 0) continue;
    const std::string_view word = row.words[static_cast<size_t>(column)];
    if (!read_number(word, &numbers[i])) return "'" + std::string(word) + "' is not a number";
  }
  if (!is_coordinate(numbers[kCoordinateX]) || !is_coordinate(numbers[kCoordinateY])) return "no pick can be there";
  pick->x = numbers[kCoordinateX];
  pick->y = numbers[kCoordinateY];
  pick->score = static_cast<float>(numbers[kScore]);
  pick->template_number = saturating_int(numbers[kClass]);
  pick->psi = static_cast<float>(numbers[kPsi]);
  return {};
}

void read_box_list(std::istream& file, const std::string& name, BrokenLines* broken, std::vector<ListPick>* picks) {
  std::vector<std::string_view> words;
  std::string line;
  for (long number = 1; std::getline(file, line); number++) {
    split_into(line, &words);
    if (words.empty()) continue;
    ListPick pick;
    const std::string problem = box_pick(words, &pick);
    if (!problem.empty()) {
      broken->note_line(name, number, problem);
      continue;
    }
    pick.text = line;
    picks->push_back(std::move(pick));
  }
}

bool read_star_list(std::istream& file, const std::string& name, BrokenLines* broken, std::vector<ListPick>* picks) {
  StarReader table(file);
  if (!table.find({kStarColumns[kCoordinateX], kStarColumns[kCoordinateY]})) {
    broken->note_file(name, "has no columns _rlnCoordinateX and _rlnCoordinateY");
    return false;
  }
  for (StarRow row; table.next(&row);) {
    ListPick pick;
    const std::string problem = star_pick(row, table, &pick);
    if (!problem.empty()) {
      broken->note_line(name, row.line, problem);
      continue;
    }
    pick.text = row.text;
    picks->push_back(std::move(pick));
  }
  return true;
}

// RELION's own mark for a value that a pick made by hand doesn't have.
float score_or_mark(float score) { return std::isnan(score) ? kNoValue : score; }

}  // namespace

ListKind list_kind(const std::string& name) {
  switch (get_boxf_suffixf(name.c_str())) {
    case 1:
      return ListKind::star;
    case 2:
      return ListKind::box;
    default:
      return ListKind::none;
  }
}

bool read_pick_list(const std::string& name, BrokenLines* broken, std::vector<ListPick>* picks) {
  picks->clear();
  const ListKind kind = list_kind(name);
  if (kind == ListKind::none) {
    broken->note_file(name, "is neither a .box nor a .star file");
    return false;
  }
  std::ifstream file(name);
  if (!file) {
    broken->note_file(name, "can't be read; is it there?");
    return false;
  }
  if (kind == ListKind::star) return read_star_list(file, name, broken, picks);
  read_box_list(file, name, broken, picks);
  return true;
}

void write_star_head(FILE* file) { output_starbox_head(file); }

void write_star_pick(FILE* file, const ListPick& pick) {
  fprintf(file, "%-8d%-8d%-8.6f\t%-8d%-8.6f\n", saturating_int(pick.x), saturating_int(pick.y), pick.psi,
          pick.template_number, score_or_mark(pick.score));
}

void write_box_pick(FILE* file, const ListPick& pick, int width, int height) {
  fprintf(file, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n", saturating_int(pick.x) - width / 2,
          saturating_int(pick.y) - height / 2, width, height, score_or_mark(pick.score), pick.template_number,
          pick.psi);
}
