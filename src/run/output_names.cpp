#include "run/output_names.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "formats/image_file.h"
#include "platform/failure.h"
#include "run/parameters.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "output_names";

}  // namespace

void set_output_name(char* out, const char* mic, const Kestrix_Para* para) {
  const std::string plain = para->any_format ? plain_image_name(mic) : mic;
  if (is_str_null(para->odir)) {
    strlcpy(out, plain.c_str());
    return;
  }
  const char* slash = strrchr(plain.c_str(), '/');
  const int length = snprintf(out, kTextBytes, "%s/%s", para->odir, slash ? slash + 1 : plain.c_str());
  if (length < 0 || static_cast<size_t>(length) >= kTextBytes)
    KESTRIX_FATAL("the output name of %s in --odir %s has more than %zu characters", mic, para->odir, kTextBytes - 1);
}
