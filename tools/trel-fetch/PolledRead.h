#pragma once

// One read from a descriptor that a reader thread waits on, for the URL list
// and the streamed body alike: the wait is polled, so that a run that ends
// early (Ctrl-C, a failed request) can stop a thread waiting on a pipe or a
// terminal.

#include <atomic>
#include <optional>
#include <vector>

#include <sys/types.h>

namespace trelfetch {

// Waits until `fd` is readable and reads once into `buffer`: what read()
// returned (0 at end of input, -1 with errno on an error), or nothing once
// `stopping` is set. Interrupted waits and reads are retried.
std::optional<ssize_t> readWhenReadable(int fd, std::vector<char>& buffer, const std::atomic<bool>& stopping);

} // namespace trelfetch
