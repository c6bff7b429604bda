//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_UNPACKCHECK_P_H
#define TRELLIS_UNPACKCHECK_P_H

#include <QByteArray>

class Directory;

// Decides, before tar unpacks an archive into a directory, whether every
// member stays inside that directory.
//
// tar itself drops a leading '/' and skips members with a ".." component,
// but follows a symbolic link that a member's path passes through, whether
// the archive made it earlier or it was there before, so an archive could
// write anywhere the caller may. A member is refused when its name (or the
// name a hard link points to) is absolute or holds "..", or when the
// directories on its way, resolved as tar will find them (through the
// archive's own links made so far and the links already in the
// destination), leave the destination.
namespace UnpackCheck {

// listing: what "tar -tvzf ARCHIVE --quoting-style=c --numeric-owner" prints
// with LC_ALL=C. True when every member it names stays inside destination.
bool staysInside(const QByteArray &listing, const Directory &destination);

} // namespace UnpackCheck

#endif // TRELLIS_UNPACKCHECK_P_H
