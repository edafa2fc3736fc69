#include "session/micrograph_list.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "platform/failure.h"
#include "run/output_names.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "micrograph_list";

constexpr const char* kOwnImages[] = {"_pref.mrc",   "_mask.mrc",  "_bg.mrc",         "_bgfree.mrc",
                                      "_lsigma.mrc", "_ccmax.mrc", "_particles.mrcs", "_learned.mrcs"};

// The same for every way to write a path: ./a.mrc is a.mrc.
std::string plain_path(const char* file) { return std::filesystem::path(file).lexically_normal().string(); }

// The stem of the micrograph that this image would belong to, if it were one of the program's own; else empty.
std::string stem_of_own_image(const std::string& path) {
  for (const std::string suffix : kOwnImages)
    if (path.size() > suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0)
      return path.substr(0, path.size() - suffix.size());
  return "";
}

std::unordered_set<std::string> all_stems(const char* const* files, int n, const Kestrix_Para* para) {
  std::unordered_set<std::string> stems;
  for (int i = 0; i < n; i++) stems.insert(output_stem(files[i], para));
  return stems;
}

// "NAME", or "NAME and 4 more".
std::string with_more(const std::string& name, int more) {
  return more > 0 ? name + " and " + std::to_string(more) + " more" : name;
}

}  // namespace

std::string output_stem(const char* file, const Kestrix_Para* para) {
  char out[kTextBytes];
  set_output_name(out, file, para);
  std::string path = plain_path(out);
  path.resize(path.size() - static_cast<size_t>(get_micrograph_suffixn(path.c_str())));
  return path;
}

bool is_own_image_of_a_micrograph(const std::string& path) {
  const std::string stem = stem_of_own_image(path);
  return !stem.empty() && (access((stem + ".mrc").c_str(), F_OK) == 0 || access((stem + ".mrcs").c_str(), F_OK) == 0);
}

int leave_out_own_images(char** files, int n, const Kestrix_Para* para) {
  const std::unordered_set<std::string> stems = all_stems(files, n, para);
  const auto is_own_image = [&](const char* file) {
    const std::string stem = stem_of_own_image(plain_path(file));
    return !stem.empty() && stems.count(stem) > 0;
  };
  const char* const* first = std::find_if(files, files + n, is_own_image);
  if (first == files + n) return n;
  const std::string example = *first;
  const int left = static_cast<int>(std::remove_if(files, files + n, is_own_image) - files);
  safety_note(nullptr, "%s: written by kestrix beside listed micrographs, so left out of the list.",
              with_more(example, n - left - 1).c_str());
  return left;
}

void check_output_names(const char* const* files, int n, const Kestrix_Para* para) {
  std::unordered_map<std::string, std::string> path_of_stem;
  const char* repeated = nullptr;
  int times = 0;
  for (int i = 0; i < n; i++) {
    const std::string path = plain_path(files[i]);
    const auto [entry, is_new] = path_of_stem.emplace(output_stem(files[i], para), path);
    if (is_new) continue;
    if (entry->second != path)
      KESTRIX_FATAL("%s and %s would both write %s_quorlin.box; pick them in separate folders or rename one",
                    entry->second.c_str(), path.c_str(), entry->first.c_str());
    if (!repeated) repeated = files[i];
    times++;
  }
  if (repeated)
    safety_note(nullptr, "%s: in the list more than once; picked anew each time.",
                with_more(repeated, times - 1).c_str());
}

std::vector<std::vector<int>> groups_by_outputs(const char* const* files, int n, const Kestrix_Para* para) {
  std::unordered_map<std::string, std::string> folders;  // as written, and as they are
  std::unordered_map<std::string, size_t> group_of;
  std::vector<std::vector<int>> groups;
  for (int i = 0; i < n; i++) {
    const std::filesystem::path stem(output_stem(files[i], para));
    const std::string written = stem.has_parent_path() ? stem.parent_path().string() : ".";
    std::string& folder = folders[written];
    std::error_code unknown;
    if (folder.empty()) folder = std::filesystem::weakly_canonical(written, unknown).string();
    const auto found = group_of.emplace(folder + "/" + stem.filename().string(), groups.size());
    if (found.second) groups.emplace_back();
    groups[found.first->second].push_back(i);
  }
  return groups;
}
