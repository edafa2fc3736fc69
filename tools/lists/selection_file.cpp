#include "lists/selection_file.h"

#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>

#include "common/options.h"

namespace {

using nlohmann::json;

float limit(const json& rules, const char* name) {
  const auto found = rules.find(name);
  return found == rules.end() || found->is_null() ? kNoLimit : static_cast<float>(found->get<double>());
}

SelectionRules rules_from(const json& rules) {
  SelectionRules read;
  read.min_score = limit(rules, "min_score");
  read.max_score = limit(rules, "max_score");
  read.min_average = limit(rules, "min_average");
  read.max_average = limit(rules, "max_average");
  read.min_sigma = limit(rules, "min_sigma");
  read.max_sigma = limit(rules, "max_sigma");
  read.thin = rules.value("thin", 0.0);
  read.most = rules.value("most", -1L);
  return read;
}

std::vector<Point> points_from(const json& micrograph, const char* name) {
  std::vector<Point> points;
  for (const json& p : micrograph.value(name, json::array())) points.push_back({p.at(0), p.at(1)});
  return points;
}

MicrographEdits edits_from(const json& micrograph) {
  MicrographEdits edits;
  edits.left_out = micrograph.value("left_out", false);
  edits.dropped = points_from(micrograph, "dropped");
  edits.added = points_from(micrograph, "added");
  for (const json& b : micrograph.value("brushed", json::array())) edits.brushed.push_back({b.at(0), b.at(1), b.at(2)});
  return edits;
}

SelectionFile selection_from(const json& text) {
  SelectionFile selection;
  if (text.at("kestrix_selection") != 1) throw std::runtime_error("it is of a version that this program doesn't know");
  selection.list = text.value("list", "_quorlin");
  selection.odir = text.value("odir", "");
  selection.boxsize = text.value("boxsize", 0);
  selection.rules = rules_from(text.at("rules"));
  for (const json& micrograph : text.at("micrographs")) {
    selection.micrographs.push_back(micrograph.at("name"));
    if (micrograph.size() > 1) selection.edits[selection.micrographs.back()] = edits_from(micrograph);
  }
  return selection;
}

}  // namespace

SelectionFile read_selection_file(const std::string& name) {
  std::ifstream file(name);
  if (!file) refuse("cannot read %s: %m", name.c_str());
  try {
    return selection_from(json::parse(file));
  } catch (const std::exception& problem) {
    refuse("%s is not a selection that the page of kestrix_report saved: %s", name.c_str(), problem.what());
  }
}
