#include "mpi/told.h"

#include <cstring>
#include <initializer_list>
#include <type_traits>

namespace {

// All but the texts.
struct Numbers {
  int position, status;
  SummaryState state;
  PickFindings findings;
  double seconds;
  RunTally tally;
};
static_assert(std::is_trivially_copyable<Numbers>::value, "goes through a message as it is");

// Takes values off the front of a message.
class Reader {
 public:
  explicit Reader(const std::string& bytes) : at_(bytes.data()) {}

  void take(void* data, size_t length) {
    memcpy(data, at_, length);
    at_ += length;
  }

  void take(std::string* text) {
    size_t length = 0;
    take(&length, sizeof length);
    text->assign(at_, length);
    at_ += length;
  }

 private:
  const char* at_;
};

}  // namespace

std::string pack(const Told& told) {
  const SummaryRow& row = told.taken.row;
  const Numbers numbers{told.position, told.status, row.state, row.findings, row.seconds, told.taken.tally};
  std::string bytes(reinterpret_cast<const char*>(&numbers), sizeof numbers);
  for (const std::string* text :
       {&told.rank, &row.micrograph, &told.taken.problem, &told.printed.out, &told.printed.err}) {
    const size_t length = text->size();
    bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
    bytes += *text;
  }
  return bytes;
}

Told unpack(const std::string& bytes) {
  Reader reader(bytes);
  Numbers numbers;
  reader.take(&numbers, sizeof numbers);
  Told told;
  told.position = numbers.position;
  told.status = numbers.status;
  told.taken.row = {"", numbers.state, numbers.findings, numbers.seconds};
  told.taken.tally = numbers.tally;
  for (std::string* text :
       {&told.rank, &told.taken.row.micrograph, &told.taken.problem, &told.printed.out, &told.printed.err})
    reader.take(text);
  return told;
}
