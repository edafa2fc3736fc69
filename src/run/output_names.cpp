#include "run/output_names.h"

#include <cstdio>
#include <cstring>

#include "platform/failure.h"
#include "run/parameters.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "output_names";

}  // namespace

void set_output_name(char* out, const char* mic, const Kestrix_Para* para) {
  if (is_str_null(para->odir)) {
    strlcpy(out, mic);
    return;
  }
  const char* slash = strrchr(mic, '/');
  const int length = snprintf(out, kTextBytes, "%s/%s", para->odir, slash ? slash + 1 : mic);
  if (length < 0 || static_cast<size_t>(length) >= kTextBytes)
    KESTRIX_FATAL("the output name of %s in --odir %s has more than %zu characters", mic, para->odir, kTextBytes - 1);
}
