// Whether record writes to a folder store survive a power cut.
//
// Off by default: a record written by FileSystemStorage::setRaw survives the
// writing process being killed at any instant (the old or the new record is
// left, never a mixture), but it may be lost, with the records written just
// before it, if the machine loses power before the kernel writes it out, as
// with most key/value stores that do not sync.
//
// On: each write also flushes the record's data and its folder entry to the
// device before it returns: two flushes per write. A del() flushes the folder
// once, a delAll() once at its end, and a store folder that the constructor
// creates is flushed into its parent. What that costs is the
// device's flush latency. Measured with 100-byte records: on ext4 over a
// virtual disk about 1.5 ms a write with it against 1.3 ms without (ext4
// already pushes out a file that replaces another); on tmpfs 24 us against
// 21 us. On a disk whose cache is flushed for real, expect milliseconds per
// write; turn it on only where records must survive a power cut.
//
// The switch is process-wide and may be flipped from any thread; a write
// already under way uses the setting it started with.
#ifndef LOGINSTORAGE_PLATFORM_DURABILITY_H
#define LOGINSTORAGE_PLATFORM_DURABILITY_H

#include "../storage/Export.h"

namespace VelLogin {

LOGINSTORAGE_EXPORT void setDurableWrites(bool on);
LOGINSTORAGE_EXPORT bool durableWrites();

}  // namespace VelLogin

#endif
