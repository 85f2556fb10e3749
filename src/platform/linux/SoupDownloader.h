#pragma once

// The downloader of the command: libsoup for http and https, GIO for file
// URLs. Synchronous; the whole download is cancelled when it outlives its
// time.

#include <memory>

#include "platform/Downloader.h"

namespace stonewall::platform::gnulinux {

// The timeouts, with STONEWALL_CONNECT_TIMEOUT and STONEWALL_DOWNLOAD_TIMEOUT
// (seconds, a positive number) over the defaults; a value that does not
// read is ignored and logged.
DownloadTimeouts downloadTimeoutsFromEnvironment();

std::unique_ptr<Downloader> makeSoupDownloader(DownloadTimeouts timeouts);

}  // namespace stonewall::platform::gnulinux
