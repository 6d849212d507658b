// Pieces of the direct channel shared by its source files (velt_pipe*.cpp); not part of the
// protocol (see velt_pipe.h for that).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "fs/velt.h"

namespace velt::direct {

// The channel's clock in microseconds (the volume's direct_clock_ when set).
uint64_t channelNow(const VELT& velt);
// The open direct file with this number, or empty. FUSE handles are not the channel's.
std::shared_ptr<VELT::File> directFile(VELT& velt, int32_t fd);
// The path of a file's entry for messages.
std::string entryPath(const VELT::File& file);
// Frees an item's payload; the item itself stays (it becomes a reply without data).
void releaseData(VELTWorkItem* item);
// Turns a request into its error reply carrying `result`.
VELTWorkItem* makeErrorReply(VELTWorkItem* item, int result);
// Takes a parked read off a file. With `answer` the client gets an empty reply carrying
// -EBADF (its file went away); otherwise the request is dropped.
void takePendingRead(VELT& velt, VELT::File& file, bool answer);
// Writes a request's data at its offset; with the secure flag a taken-over reserved file is
// published afterwards. Bytes written or a negative errno.
int writeRequest(VELT::File& file, VELTWorkItem* request);

}  // namespace velt::direct
