// The check-and-trace convention.
//
// A failed check writes one line at the error level (300):
//   <file>:<line>(<expression>),(ORN_SUCCEEDED(_result)) failed: result = 0x%08x (<message>)<site
//   message>
// or, for a boolean check, "...),(bool) failed: result = false<site message>".
// The helpers return the checked value unchanged, so the `return` stays at
// the call site:
//
//   if (const orn::result_t r = ORN_CHECK(GetTracer(), Load(path), "Cannot load " << path);
//       ORN_FAILED(r))
//     return r;
//
// The message is only composed when the line is written. No helper throws.
#pragma once

#include <cstdint>

#include "framework/trace.h"
#include "orn/result.h"

namespace orn::detail {

// Writes the common head of a failed-check line; returns false when the
// line is not being composed.
void WriteCheckHead(TraceStream& s, const char* file, int line, const char* expr, bool isBool,
                    result_t r);

template <class Msg>
result_t CheckResult(ITracer* tracer, result_t r, const char* file, int line, const char* expr,
                     Msg&& msg) {
  if (ORN_SUCCEEDED(r)) return r;
  if (TraceLine l(tracer, kTraceLevelError); l) {
    WriteCheckHead(l.Stream(), file, line, expr, false, r);
    msg(l.Stream());
  }
  return r;
}

template <class Msg>
bool CheckBool(ITracer* tracer, bool ok, const char* file, int line, const char* expr, Msg&& msg) {
  if (ok) return true;
  if (TraceLine l(tracer, kTraceLevelError); l) {
    WriteCheckHead(l.Stream(), file, line, expr, true, 0);
    msg(l.Stream());
  }
  return false;
}

}  // namespace orn::detail

// Checks a result_t expression; the expression text is the source text.
#define ORN_CHECK(tracer, expr, msg)                                      \
  ::orn::detail::CheckResult((tracer), (expr), __FILE__, __LINE__, #expr, \
                             [&](::orn::TraceStream& _orn_s) { _orn_s << msg; })

// As ORN_CHECK with an explicit expression text (for lines whose quoted
// expression differs from the code that runs, or must keep exact spacing).
#define ORN_CHECK_AS(tracer, expr, text, msg)                              \
  ::orn::detail::CheckResult((tracer), (expr), __FILE__, __LINE__, (text), \
                             [&](::orn::TraceStream& _orn_s) { _orn_s << msg; })

// Checks a boolean expression ("bool", "result = false").
#define ORN_CHECK_BOOL(tracer, expr, msg)                                                \
  ::orn::detail::CheckBool((tracer), static_cast<bool>(expr), __FILE__, __LINE__, #expr, \
                           [&](::orn::TraceStream& _orn_s) { _orn_s << msg; })

#define ORN_CHECK_BOOL_AS(tracer, expr, text, msg)                                        \
  ::orn::detail::CheckBool((tracer), static_cast<bool>(expr), __FILE__, __LINE__, (text), \
                           [&](::orn::TraceStream& _orn_s) { _orn_s << msg; })
