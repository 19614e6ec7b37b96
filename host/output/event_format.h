// One line of text per event, in two forms.
//
// JSON (one object per line, "JSON Lines"):
//   {"id":0,"eventType":67,"eventTypeName":"SystemIntegrityIssue","severity":0,
//    "severityName":"Critical","time":1732168260,
//    "fields":[{"id":66,"name":"Path","value":"/etc/x"},...]}
// Fields keep the event's order. A type, severity or field id without a name
// in the vocabulary has its "...Name"/"name" member omitted. Integer values
// are numbers, texts are strings.
//
// Byte texts (paths) are not always UTF-8. They are decoded as UTF-8 and each
// byte that is not part of a valid sequence is written as the lone surrogate
// escape \udcXX (XX = the byte, 80..ff) -- the mapping of
// orn::text::NarrowToWide. Decoding the JSON string to UTF-16 and applying
// orn::text::WideToNarrow gives back the original bytes. Quotes, backslashes,
// control characters and DEL are escaped per JSON; other characters are
// written as UTF-8.
//
// Text (for a terminal):
//   <local time> <type name> <severity name> [<path>] [<modification name>] Name=value...
// Bytes that are not printable UTF-8 are shown as \xNN and a backslash as \\,
// so one event stays one line.
//
// An on-access event delivered by the fanotify watch backend also names the
// process that made the change (host/util/process_origin.h):
//   JSON: "process":{"pid":812,"ppid":1,"uid":0,"loginUid":1000,
//                    "executable":"/usr/bin/vim.basic","command":"vim"}
//         or "process":{"pid":812,"exited":true} when it had exited before it
//         could be read, "process":{"pid":812,"hidden":true} when /proc hides
//         it from the monitor (absent members were not readable);
//   text: process=812 ppid=1 uid=0 loginuid=1000 exe=/usr/bin/vim.basic comm=vim
//         or process=812(exited), process=812(hidden)
// Events without a known process (scans, the inotify backend) have neither.
//
// Detect events of the publisher service (--detections):
//   {"detectType":1,"detectTypeName":"RenamedOrMoved","path":"/x","sha256":"<hex>"}
//   <local time> detection RenamedOrMoved /x sha256=<hex>
#pragma once

#include <string>

#include "host/util/process_origin.h"
#include "orn/types.h"
#include "pax/integrity_monitor_publisher.h"
#include "pax/product_event.h"

namespace arvo::host {

enum class OutputFormat { kJson, kText };

// `origin` (may be null): the process behind the event.
std::string FormatEventJson(const pax::ProductEvent& event, const ProcessOrigin* origin = nullptr);
std::string FormatEventText(const pax::ProductEvent& event, const ProcessOrigin* origin = nullptr);
// The text form without its leading time (for outputs that stamp their own).
std::string FormatEventSummary(const pax::ProductEvent& event,
                               const ProcessOrigin* origin = nullptr);
std::string FormatDetectJson(const pax::DetectEvent& event);
std::string FormatDetectText(const pax::DetectEvent& event);

// Appends `text` as a quoted JSON string (lone surrogates as \uXXXX).
void AppendJsonString(std::string& out, const orn::types::string16_t& text);
// Appends bytes as a quoted JSON string with the \udcXX mapping above.
void AppendJsonBytes(std::string& out, const orn::types::string8_t& bytes);

}  // namespace arvo::host
