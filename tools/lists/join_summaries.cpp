// kestrix_lists join_summaries: the summaries of runs that shared a list, as one run's over all of it.
#include <algorithm>
#include <map>
#include <vector>

#include "common/micrograph_names.h"
#include "common/options.h"
#include "common/output_file.h"
#include "common/star_reader.h"
#include "formats/star_blocks.h"
#include "lists/commands.h"
#include "session/shard.h"
#include "session/summary.h"

namespace {

constexpr char kPurpose[] =
    "Makes of the summaries of shards (kestrix --shard K/N --summary) that of one run over the whole list. The tables\n"
    "tell which shard they are of and may be named in any order; all must be there and complete. With --micrographs "
    "the\n"
    "list tells the order, and tables of any runs can be joined that hold its micrographs once each.";

struct Settings {
  const char* micrographs = nullptr;
  const char* out = nullptr;
};

struct Table {
  const char* file;
  Shard shard;
  SummaryTable rows;
};

std::vector<Table> read_tables(const std::vector<const char*>& files) {
  std::vector<Table> tables;
  for (const char* file : files) {
    SummaryTable rows = read_summary_table(file);
    if (!rows.valid) refuse("%s can't be read, or is no summary of kestrix", file);
    const Shard shard = read_shard_heading(rows.heading);
    tables.push_back({file, shard, std::move(rows)});
  }
  return tables;
}

// The table that holds each micrograph.
std::map<std::string, const Table*> tables_of_micrographs(const std::vector<Table>& tables) {
  std::map<std::string, const Table*> found;
  for (const Table& table : tables)
    for (const std::string& name : table.rows.names)
      if (!found.emplace(name, &table).second)
        refuse("%s is in %s and in %s; join the tables of one run only", name.c_str(), found[name]->file, table.file);
  return found;
}

// --- By the list ---

// "A", or "A and 4 more".
std::string with_more(const std::vector<std::string>& names) {
  return names.size() > 1 ? names[0] + " and " + std::to_string(names.size() - 1) + " more" : names[0];
}

std::vector<std::string> rows_by_list(const std::vector<Table>& tables, const char* list) {
  std::map<std::string, const Table*> held = tables_of_micrographs(tables);
  std::vector<std::string> rows, missing;
  for (const std::string& micrograph : gather_micrographs({}, list)) {
    const auto entry = held.find(star_word(micrograph));
    if (entry == held.end()) {
      missing.push_back(micrograph);
      continue;
    }
    rows.push_back(entry->second->rows.lines.at(entry->first));
    held.erase(entry);
  }
  if (!missing.empty())
    refuse("no table holds %s; finish those runs with --do_unfinished 1, or name their tables too",
           with_more(missing).c_str());
  if (!held.empty())
    refuse("%s of %s is not in --micrographs %s; is that the list of this run?", held.begin()->first.c_str(),
           held.begin()->second->file, list);
  return rows;
}

// --- By the shards that the tables tell ---

// The tables in the order of their shards, one for each.
std::vector<const Table*> in_order_of_shards(const std::vector<Table>& tables) {
  const Shard& first = tables[0].shard;
  std::vector<const Table*> of_shard(static_cast<size_t>(first.of), nullptr);
  for (const Table& table : tables) {
    const Shard& shard = table.shard;
    if (shard.of == 0) refuse("%s tells no shard; give the list of all micrographs as --micrographs", table.file);
    if (shard.of != first.of || shard.listed != first.listed || shard.list != first.list)
      refuse("%s is shard %d/%d of another list or division than %s, shard %d/%d; join the tables of one run only",
             table.file, shard.number, shard.of, tables[0].file, first.number, first.of);
    const Table*& place = of_shard[static_cast<size_t>(shard.number) - 1];
    if (place) refuse("%s and %s are both shard %d/%d", place->file, table.file, shard.number, shard.of);
    place = &table;
  }
  std::vector<std::string> missing;
  for (size_t i = 0; i < of_shard.size(); i++)
    if (!of_shard[i]) missing.push_back(std::to_string(i + 1) + "/" + std::to_string(first.of));
  if (!missing.empty()) refuse("shard %s is missing; name its table too", with_more(missing).c_str());
  return of_shard;
}

void check_complete(const Table& table) {
  const auto expected = static_cast<size_t>(micrographs_of(table.shard));
  if (table.rows.names.size() == expected) return;
  refuse("%s has %zu rows and its shard %zu micrographs; finish that run with --do_unfinished 1%s", table.file,
         table.rows.names.size(), expected,
         table.rows.names.size() > expected ? ", or give the list of all micrographs as --micrographs" : "");
}

// The names as they were given, without quotes.
unsigned long long number_of_rows(const std::vector<std::string>& names) {
  std::vector<std::string> given;
  for (const std::string& name : names) {
    std::vector<std::string_view> words;
    split_into(name, &words);
    given.emplace_back(words.at(0));
  }
  std::vector<const char*> texts;
  texts.reserve(given.size());
  for (const std::string& name : given) texts.push_back(name.c_str());
  return number_of_list(texts.data(), static_cast<int>(texts.size()));
}

std::vector<std::string> rows_by_shards(const std::vector<Table>& tables) {
  const std::vector<const Table*> shards = in_order_of_shards(tables);
  tables_of_micrographs(tables);
  for (const Table* table : shards) check_complete(*table);
  std::vector<std::string> names, rows;
  for (size_t i = 0; i < static_cast<size_t>(tables[0].shard.listed); i++) {
    const SummaryTable& table = shards[i % shards.size()]->rows;
    names.push_back(table.names[i / shards.size()]);
    rows.push_back(table.lines.at(names.back()));
  }
  if (number_of_rows(names) != tables[0].shard.list)
    refuse("the rows aren't those of the list in its order; was a run ended early? Finish it with --do_unfinished 1");
  return rows;
}

}  // namespace

int run_join_summaries(int argc, char** argv) {
  Settings s;
  const Option options[] = {
      {"out", OptionKind::text, &s.out, 0, 0, "none", "table to write"},
      {"micrographs", OptionKind::text, &s.micrographs, 0, 0, "none", "the whole list, a text or STAR file"},
  };
  std::vector<const char*> files(static_cast<size_t>(argc));
  const int found = parse_options(argc, argv, options, 2, files.data(), argc);
  if (found < 0) {
    print_help("join_summaries [options] --out WHOLE.star SHARD.star...", kPurpose, options, 2);
    return 0;
  }
  files.resize(static_cast<size_t>(found));
  if (files.empty()) refuse("which summaries? Name those of all shards");
  if (!s.out) refuse("where to? Give --out");
  const std::vector<Table> tables = read_tables(files);
  const std::vector<std::string> rows = s.micrographs ? rows_by_list(tables, s.micrographs) : rows_by_shards(tables);
  OutputFile file(s.out);
  fputs(summary_head("").c_str(), file.stream());
  for (const std::string& row : rows) fputs(row.c_str(), file.stream());
  file.finish();
  printf("%s: %zu micrographs of %zu tables\n", s.out, rows.size(), tables.size());
  return 0;
}
