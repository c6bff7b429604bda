#ifndef TRELLIS_COPY_COPYAFTERCARE_H
#define TRELLIS_COPY_COPYAFTERCARE_H

#include <QString>

class Console;
class QFileInfo;

//! Gives a finished copy its source's mode and times, and removes an incomplete one.
class CopyAftercare
{
public:
    CopyAftercare(bool keepLibraryAttributes, bool keepIncomplete, Console &console);

    void Finished(const QFileInfo &source, const QString &copy) const;
    //! Removes \a copy if it is a regular file shorter than \a source.
    void Failed(const QFileInfo &source, const QString &copy) const;

private:
    const bool m_keepLibraryAttributes;
    const bool m_keepIncomplete;
    Console &m_console;
};

#endif // TRELLIS_COPY_COPYAFTERCARE_H
