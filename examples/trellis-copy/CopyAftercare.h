#ifndef TRELLIS_COPY_COPYAFTERCARE_H
#define TRELLIS_COPY_COPYAFTERCARE_H

#include <QString>

class Console;
class QFileInfo;

/*!
    What becomes of a copy once the copy task is done with it: a finished
    one gets its source's permission bits and times (unless the library's
    are kept), an incomplete one is removed (unless kept), and says so.
*/
class CopyAftercare
{
public:
    CopyAftercare(bool keepLibraryAttributes, bool keepIncomplete, Console &console);

    void Finished(const QFileInfo &source, const QString &copy) const;
    //! Removes \a copy if it is a regular file shorter than \a source, and not \a source itself.
    void Failed(const QFileInfo &source, const QString &copy) const;

private:
    const bool m_keepLibraryAttributes;
    const bool m_keepIncomplete;
    Console &m_console;
};

#endif // TRELLIS_COPY_COPYAFTERCARE_H
