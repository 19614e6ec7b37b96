#include "framework/check.h"

namespace orn::detail {

void WriteCheckHead(TraceStream& s, const char* file, int line, const char* expr, bool isBool,
                    result_t r) {
  s << file << ':' << line << '(' << expr << "),(" << (isBool ? "bool" : "ORN_SUCCEEDED(_result)")
    << ") failed: ";
  if (isBool) {
    s << "result = false";
  } else {
    s << "result = " << ResultToTraceText(r);
  }
}

}  // namespace orn::detail
