//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_FILESTAMP_P_H
#define TRELLIS_FILESTAMP_P_H

#include <optional>
#include <sys/stat.h>

// The times TLocalTime::setFileTime() gives a file: the start of the offset
// clock's current minute, as local time, for both access and modification.
// Empty when the C library cannot represent that time. The file system
// layer stamps what it created through its descriptor with them, where
// setFileTime() would find the file by its path again.
std::optional<struct timespec> offsetClockFileTime();

// Stamps the open file or directory fd with offsetClockFileTime(); a time
// that cannot be represented or a failure leaves it as it was, unreported.
void stampWithOffsetClock(int fd);

#endif // TRELLIS_FILESTAMP_P_H
