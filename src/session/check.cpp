#include "session/check.h"

#include <cmath>
#include <cstdio>
#include <string>
#include <unordered_map>

#include "formats/image_diagnosis.h"
#include "run/micrograph_image.h"
#include "session/micrograph_list.h"

namespace {

// Pixel sizes that differ by less are one, rounded differently.
constexpr double kSamePixel = 0.01;

std::string size_text(const MRC_HEAD& head) {
  return std::to_string(head.nx) + " x " + std::to_string(head.ny) + " x " + std::to_string(head.nz) + " of mode " +
         std::to_string(head.mode);
}

bool differs(float a, float b) { return std::fabs(static_cast<double>(a - b)) > kSamePixel * static_cast<double>(b); }

class Check {
 public:
  explicit Check(const Kestrix_Para* para) : para_(para) {}

  void look_at(const char* name) {
    note_repeated(name);
    const ImageFacts facts = look_at_image(name, image_options(para_), false);
    if (!facts.problem.empty()) return tell(name, facts.problem);
    if (first_.empty()) {
      first_ = name;
      first_facts_ = facts;
      // 1 is what many programs write that don't know it.
      if (facts.apix > 0 && facts.apix != 1.0f && differs(facts.apix, para_->apixM))
        printf("%s: the pixel size in its header is %g A, and --apixM is %g\n", name, static_cast<double>(facts.apix),
               static_cast<double>(para_->apixM));
      return;
    }
    if (size_text(facts.head) != size_text(first_facts_.head)) {
      tell(name, "is " + size_text(facts.head) + ", and " + first_ + " is " + size_text(first_facts_.head));
    } else if (facts.apix > 0 && first_facts_.apix > 0 && differs(facts.apix, first_facts_.apix)) {
      tell(name, "has a pixel size of " + std::to_string(facts.apix) + " A in its header, and " + first_ + " has " +
                     std::to_string(first_facts_.apix));
    }
  }

  bool finish() const {
    printf("%d micrographs looked at, %d problems.\n", para_->n_files, problems_);
    return problems_ == 0;
  }

 private:
  void tell(const char* name, const std::string& problem) {
    problems_++;
    printf("%s: %s\n", name, problem.c_str());
  }

  void note_repeated(const char* name) {
    const auto entry = names_.emplace(output_stem(name, para_), name);
    if (entry.second) return;
    const std::string& other = entry.first->second;
    tell(name, other == name ? "is listed more than once" : "would write the same outputs as " + other);
  }

  const Kestrix_Para* para_;
  std::unordered_map<std::string, std::string> names_;  // by their outputs
  std::string first_;                                   // the first good one
  ImageFacts first_facts_;
  int problems_ = 0;
};

}  // namespace

bool check_micrographs(const Kestrix_Para* para) {
  Check check(para);
  for (int i = 0; i < para->n_files; i++) check.look_at(para->files[i]);
  return check.finish();
}
