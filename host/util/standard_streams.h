// The standard descriptors at start. A process started with one of them
// closed (`arvo-fim scan >&-`) would otherwise hand that number to the next
// descriptor it opens (a signalfd, a database), and output meant for the
// terminal would go there.
#pragma once

namespace arvo::host {

// Opens /dev/null on each of descriptors 0, 1 and 2 that is closed and
// remembers which were. Call first thing in main, before any other open.
void ReserveStandardDescriptors();

// True when standard output was closed at start (ReserveStandardDescriptors).
bool StandardOutputWasClosed();

}  // namespace arvo::host
