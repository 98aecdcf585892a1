#pragma once

// Counts this process's open file descriptors and its established TCP
// connections to a loopback port, read from /proc, so tests can assert
// connection reuse and the absence of leaked descriptors.

namespace trel::test {

int openFileDescriptors();
int establishedConnectionsTo(unsigned short port);

} // namespace trel::test
