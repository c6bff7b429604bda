#ifndef TRELLIS_COPY_COPYAFTERCARE_H
#define TRELLIS_COPY_COPYAFTERCARE_H

#include <QString>

class Console;
class QFileInfo;

/*!
    What trellis-copy does to a copy once the copy task is done with it: a
    finished copy gets its source's permission bits and access and
    modification times, unless the library's own are to be kept, and an
    incomplete one, left by a failure or a stop, is removed, unless it is
    to be kept. Either is said on the console when it fails; a removal (or
    a copy kept) is said always.
*/
class CopyAftercare
{
public:
    CopyAftercare(bool keepLibraryAttributes, bool keepIncomplete, Console &console);

    //! Gives \a copy, just finished, the attributes of \a source.
    void Finished(const QFileInfo &source, const QString &copy) const;

    /*!
        Removes \a copy after its copy from \a source failed or was stopped,
        if it is incomplete: a regular file shorter than the source, and not
        the source itself (the task refuses to copy a file onto itself).
    */
    void Failed(const QFileInfo &source, const QString &copy) const;

private:
    const bool m_keepLibraryAttributes;
    const bool m_keepIncomplete;
    Console &m_console;
};

#endif // TRELLIS_COPY_COPYAFTERCARE_H
