// Events to the systemd journal: one entry per event, sent with the native
// journal protocol (sd_journal_sendv), so that journal readers can select
// events by their fields (journalctl ARVO_FIM_TYPE=SystemIntegrityIssue).
//
// Each entry carries:
//   MESSAGE            the event's text form without its time
//   PRIORITY           from the severity: Critical 2, Error 3, Warning 4,
//                      Informational 6, any other 5
//   SYSLOG_IDENTIFIER  "arvo-fim"
//   ARVO_FIM_TYPE      the type's name (its number when it has none)
//   ARVO_FIM_TYPE_ID, ARVO_FIM_SEVERITY (name or number), ARVO_FIM_EVENT_ID,
//   ARVO_FIM_TIME      the event's header (time in seconds since the epoch)
//   ARVO_FIM_<NAME>    one per field, NAME the field's name in upper case
//                      with "_" between words (Path -> PATH, OriginalPath ->
//                      ORIGINAL_PATH, TaskId -> TASK_ID); a field without a
//                      usable name is ARVO_FIM_FIELD_<id>. The modification
//                      type is ARVO_FIM_MODIFICATION and the object type
//                      ARVO_FIM_OBJECT_TYPE, both by name.
//   ARVO_FIM_PROCESS_* the process behind the change, when the delivering
//                      thread knows it (CurrentProcessOrigin): PID, then
//                      either EXITED=1 or PPID, UID, LOGINUID, EXE, COMM
//                      (each one only when known)
// Values are bytes: integers in decimal, paths exactly as they are (not
// necessarily UTF-8; the protocol is binary-safe), texts as UTF-8.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/util/process_origin.h"
#include "orn/simple_object.h"
#include "pax/product_event.h"

namespace arvo::host {

// Name and value of one journal field, in the entry's order.
using JournalField = std::pair<std::string, std::string>;

// `origin` (may be null): the process behind the event.
std::vector<JournalField> JournalEntry(const pax::ProductEvent& event,
                                       const ProcessOrigin* origin = nullptr);

// The syslog priority (0 emergency .. 7 debug) of an event severity.
int JournalPriority(std::uint32_t severity);

// Thread-safe (the library's sending is). The entry names the process of
// the calling thread's CurrentProcessOrigin(). Publish returns the errno-based
// result when the journal cannot take the entry (no journal running, for
// one); the caller decides whether that is worth a trace.
class JournalOutput final : public orn::SimpleObject<pax::IEventPublisher> {
 public:
  orn::result_t Publish(const pax::ProductEvent& event) override;
};

}  // namespace arvo::host
