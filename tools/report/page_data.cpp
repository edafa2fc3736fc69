#include "report/page_data.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the page reads numbers as they lie in memory here");

std::string base64(const void* data, size_t bytes) {
  static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto* from = static_cast<const unsigned char*>(data);
  std::string text;
  text.reserve((bytes + 2) / 3 * 4);
  for (size_t i = 0; i < bytes; i += 3) {
    const size_t left = std::min<size_t>(3, bytes - i);
    const unsigned group = from[i] << 16U | (left > 1 ? from[i + 1] << 8U : 0U) | (left > 2 ? from[i + 2] : 0U);
    text += kDigits[group >> 18U];
    text += kDigits[group >> 12U & 63U];
    text += left > 1 ? kDigits[group >> 6U & 63U] : '=';
    text += left > 2 ? kDigits[group & 63U] : '=';
  }
  return text;
}

std::string base64(const std::string& bytes) { return base64(bytes.data(), bytes.size()); }

std::string base64(const std::vector<float>& values) { return base64(values.data(), values.size() * sizeof(float)); }

// JSON that may stand in a script of a page; names that are no UTF-8 are shown with marks in place of what isn't.
std::string script_text(const json& data) {
  std::string text = data.dump(-1, ' ', true, json::error_handler_t::replace);
  for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at)) text.replace(at, 1, "\\u003c");
  return text;
}

json range_or_null(const Range& range) {
  return range.least > range.most ? json() : json::array({range.least, range.most});
}

using Column = std::vector<float> PickColumns::*;

// A column of all picks of the records, one after the other.
std::string column_of(const Record* records, size_t count, Column column) {
  std::vector<float> all;
  for (size_t i = 0; i < count; i++)
    all.insert(all.end(), (records[i].picks.*column).begin(), (records[i].picks.*column).end());
  return base64(all);
}

}  // namespace

void Range::add(const std::vector<float>& values) {
  for (const float value : values) {
    if (!std::isfinite(value)) continue;
    const bool first = least > most;
    least = first ? value : std::min<double>(least, value);
    most = first ? value : std::max<double>(most, value);
  }
}

void ReportIndex::add(const Record& record) {
  if (!record.problems.empty()) problems[names.size()] = record.problems;
  names.push_back(record.name);
  nx.push_back(record.nx);
  ny.push_back(record.ny);
  bins.push_back(record.bin);
  counts.push_back(static_cast<long>(record.picks.score.size()));
  closed.push_back(record.closed < 0 ? -1 : std::round(record.closed * 1e4) / 1e4);
  scores.insert(scores.end(), record.picks.score.begin(), record.picks.score.end());
  average.add(record.picks.average);
  sigma.add(record.picks.sigma);
  if (boxsize == 0) boxsize = record.boxsize;
}

std::string index_script(const ReportIndex& index, const ReportSettings& settings, bool images_apart) {
  json data = {{"apix", settings.apixM},
               {"diameter", settings.diameter / settings.apixM},
               {"boxsize", index.boxsize},
               {"list", settings.list},
               {"odir", settings.odir},
               {"folder", std::filesystem::current_path().string()},
               {"imagesApart", images_apart},
               {"perChunk", kMicrographsPerChunk},
               {"clippedShares", kClippedShares},
               {"names", index.names},
               {"nx", index.nx},
               {"ny", index.ny},
               {"bins", index.bins},
               {"counts", index.counts},
               {"closed", index.closed},
               {"average", range_or_null(index.average)},
               {"sigma", range_or_null(index.sigma)},
               {"scores", base64(index.scores)}};
  for (const auto& [number, problems] : index.problems) data["problems"][std::to_string(number)] = problems;
  return "kestrixIndex(" + script_text(data) + ");\n";
}

std::string chunk_script(size_t number, const Record* records, size_t count, bool with_images) {
  bool has_average = false, has_sigma = false;
  std::vector<float> rejected;
  json data;
  for (size_t i = 0; i < count; i++) {
    const Record& record = records[i];
    has_average |= record.has_average;
    has_sigma |= record.has_sigma;
    rejected.insert(rejected.end(), record.rejected.begin(), record.rejected.end());
    data["rejectedCounts"].push_back(record.rejected.size() / 2);
    data["levels"].push_back(base64(record.levels));
    if (with_images) data["images"].push_back(base64(record.image));
  }
  data["x"] = column_of(records, count, &PickColumns::x);
  data["y"] = column_of(records, count, &PickColumns::y);
  if (has_average) data["average"] = column_of(records, count, &PickColumns::average);
  if (has_sigma) data["sigma"] = column_of(records, count, &PickColumns::sigma);
  data["rejected"] = base64(rejected);
  return "kestrixChunk(" + std::to_string(number) + "," + script_text(data) + ");\n";
}
