// How many inotify watches this process holds, read from the kernel's view
// of its descriptors, so the count is right whatever code made the watches.
#pragma once

#include <cstddef>

namespace arvo::host {

// The "inotify wd:" entries of every inotify descriptor of this process
// (/proc/self/fdinfo); 0 when /proc cannot be read.
std::size_t InotifyWatchesInUse();

}  // namespace arvo::host
