#include "report/page_writer.h"

#include <algorithm>
#include <filesystem>

#include "common/options.h"
#include "common/output_file.h"
#include "report/page_assets.h"

namespace {

constexpr size_t kMostInOneFile = 100;

void make_folder(const std::string& name) {
  std::error_code problem;
  std::filesystem::create_directories(name, problem);
  if (problem) refuse("cannot make the folder %s: %s", name.c_str(), problem.message().c_str());
}

void write_text(const std::string& name, const std::string& text) {
  OutputFile file(name);
  fwrite(text.data(), 1, text.size(), file.stream());
  file.finish();
}

// A picture is written at once under its name: no page refers to it before it is there.
void write_picture(const std::string& name, std::string* jpeg) {
  FILE* file = fopen(name.c_str(), "w");
  if (!file) refuse("cannot write %s: %m", name.c_str());
  const bool written = fwrite(jpeg->data(), 1, jpeg->size(), file) == jpeg->size();
  if (fclose(file) != 0 || !written) refuse("writing %s failed: %m; is the disk full?", name.c_str());
  std::string().swap(*jpeg);
}

std::string picture_name(const char* folder, size_t number) {
  char name[64];
  snprintf(name, sizeof name, "%s/%06zu.jpg", folder, number);
  return name;
}

std::string script_element(const std::string& text) { return "<script>\n" + text + "</script>\n"; }

// Replaces the one place that a mark stands at.
void put(std::string* page, const std::string& mark, const std::string& text) {
  page->replace(page->find(mark), mark.size(), text);
}

}  // namespace

PageWriter::PageWriter(const ReportSettings& settings, size_t micrographs)
    : settings_(settings), images_apart_(settings.folder != 0 || micrographs > kMostInOneFile) {
  make_folder(settings.out);
  if (!images_apart_) return;
  for (const char* folder : {"data", "images", "thumbnails"}) make_folder(file(folder));
}

std::string PageWriter::file(const std::string& name) const { return std::string(settings_.out) + "/" + name; }

void PageWriter::write_images(Record* record, size_t number) const {
  if (!images_apart_ || record->image.empty()) return;
  write_picture(file(picture_name("images", number)), &record->image);
  write_picture(file(picture_name("thumbnails", number)), &record->thumbnail);
}

void PageWriter::add(const std::vector<Record>& records) {
  for (const Record& record : records) index_.add(record);
  for (size_t i = 0; i < records.size(); i += kMicrographsPerChunk) {
    const size_t count = std::min(kMicrographsPerChunk, records.size() - i);
    const std::string script = chunk_script(chunks_, &records[i], count, !images_apart_);
    if (images_apart_)
      write_text(file("data/chunk_" + std::to_string(chunks_) + ".js"), script);
    else
      data_ += script_element(script);
    chunks_++;
  }
}

std::string PageWriter::finish() {
  const std::string index = index_script(index_, settings_, images_apart_);
  if (images_apart_) write_text(file("data/index.js"), index);
  const std::string data = images_apart_ ? "<script src=\"data/index.js\"></script>\n" : script_element(index) + data_;
  std::string page = kPageHtml;
  put(&page, "<!--STYLE-->", std::string("<style>\n") + kPageStyle + "</style>");
  put(&page, "<!--SCRIPT-->", script_element(kPageScript));
  put(&page, "<!--DATA-->", data);
  write_text(file("index.html"), page);
  return file("index.html");
}
