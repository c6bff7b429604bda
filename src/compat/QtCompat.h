#ifndef TRELLIS_QTCOMPAT_H
#define TRELLIS_QTCOMPAT_H

// What differs between Qt 5 and Qt 6 for this project, in one place: the
// library, the tests and the examples build with either, and call these
// where the two Qt versions offer no common spelling free of deprecation
// warnings. Internal: never installed.

#include <QMetaType>
#include <QtGlobal>

namespace QtCompat {

// The identifier of the meta-type registered under name, or
// QMetaType::UnknownType when there is none. Qt 6 deprecates the name lookup
// of Qt 5 in favour of QMetaType::fromName(), which Qt 5 lacks.
inline int MetaTypeIdByName(const char *name)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    return QMetaType::fromName(name).id();
#else
    return QMetaType::type(name);
#endif
}

} // namespace QtCompat

#endif // TRELLIS_QTCOMPAT_H
