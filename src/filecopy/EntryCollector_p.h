//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_ENTRYCOLLECTOR_P_H
#define TRELLIS_ENTRYCOLLECTOR_P_H

#include "TFileCopyTask.h"

#include <QFileInfo>
#include <QHash>
#include <QList>
#include <QString>

#include <deque>
#include <memory>

// Collects the entries a copy task copies: files, and directories that hold
// nothing to copy, depth first in name order ignoring case. A listing admits
// what QDir::Dirs | QDir::Files would: no hidden entries, no special files,
// no links to nothing; what it leaves out goes to a receiver, when one is
// given.
//
// An entry the collector could not read completely is collected all the
// same, in its place, and is known as unreadable from then on: a directory
// that could not be listed, and a name that the locale's encoding cannot
// represent (its path names some other file, or none). Copying it must fail
// rather than count it as copied.
//
// Each entry comes with what the one look the collector took at it told, so
// that the collection looks at a file only once, relative to the directory
// it lists. A directory's entries are typed by its listing; its files are
// measured, when sizes are wanted, by a FileMeasurer, which may look at them
// on another thread, and are complete when collect() returns.
class EntryCollector
{
    struct Place;

public:
    // An entry holds its paths in the form that costs least: its name, and
    // the place it was listed in, which the entries of one listing share. A
    // batch can hold a whole tree, and most of its entries are asked for
    // their paths once, when they are copied.
    class Entry
    {
    public:
        // An entry named by its path: filePath as given, path absolute and
        // clean.
        Entry(const QString &filePath, const QString &path, qint64 size, bool isDir);

        QString filePath() const; // as given for a root, absolute below it
        QString path() const; // absolute and clean: absolutePath() of filePath()
        // path().startsWith(text), without making the path.
        bool pathStartsWith(const QString &text) const;

        // Whether the entry comes from a directory's listing: its path is
        // then listedIn(), which ends in a slash, followed by name().
        bool isListed() const { return m_nameSize != 0; }
        const QString &listedIn() const;
        QStringView name() const;

        // Made when asked for: a QFileInfo is several times the size of an
        // entry.
        QFileInfo info() const { return QFileInfo(filePath()); }

        qint64 size; // the file's st_size at the look; 0 when unreadable
        bool isDir;

    private:
        friend class EntryCollector;
        Entry(std::shared_ptr<const Place> place, quint32 nameAt, quint16 nameSize, bool isDir)
            : size(0), isDir(isDir), m_place(std::move(place)), m_nameAt(nameAt),
              m_nameSize(nameSize)
        { }

        std::shared_ptr<const Place> m_place;
        quint32 m_nameAt = 0; // in the place's names
        quint16 m_nameSize = 0; // 0 for an entry named by its path
    };
    // As a collection grows, what it holds stays where it is, so no entry
    // is moved and no memory is touched twice, and a file's size can be
    // measured into its entry while the walk goes on.
    using Entries = std::deque<Entry>;

    // Whether the files a collection lists are measured. Sizes are wanted
    // for a total and for what is skipped; a copy looks at each file itself
    // and passes over one that is gone, so without them every file listed is
    // an entry, of size 0.
    enum class Sizes { Measured, NotNeeded };

    // Appends to out the entries of info, splitting directories down to
    // depth levels below info (all the way when negative). Nothing for an
    // info that names nothing, unless it was collected as unreadable. What
    // info has cached about its file is taken as it stands: hand over an
    // object that has not looked at it yet, or has just done so.
    void collect(const QFileInfo &info, Entries &out, int depth,
                 const TFileCopyTask::LeftOutReceiver *leftOut = nullptr,
                 Sizes sizes = Sizes::Measured);

    // The same for an entry collected moments ago, without another look.
    void collect(const Entry &entry, Entries &out, int depth,
                 const TFileCopyTask::LeftOutReceiver *leftOut = nullptr,
                 Sizes sizes = Sizes::Measured);

    // The entries' QFileInfo objects, as the task's public members give them.
    static QList<QFileInfo> infos(const Entries &entries);

    // Why entry could not be read completely (an errno value), or 0.
    int readError(const QFileInfo &entry) const
    {
        return m_unreadable.isEmpty() ? 0 : readError(absolutePath(entry));
    }
    int readError(const Entry &entry) const
    {
        return m_unreadable.isEmpty() ? 0 : readError(entry.path());
    }
    // The same for an entry's absolute, clean path.
    int readError(const QString &path) const { return m_unreadable.value(path); }

    // QFileInfo::absoluteFilePath() of entry, without its cost (a copy
    // task's largest per file) when the path is absolute and clean already,
    // as the path of every entry below a collected directory is.
    static QString absolutePath(const QFileInfo &entry);

    // Forgets the unreadable entries: a new batch looks at everything anew.
    void clear() { m_unreadable.clear(); }

private:
    class Descent;
    void collectInto(Entry entry, Entries &out, int depth, Descent &descent);
    void markUnreadable(Entry entry, int error, Entries &out);

    QHash<QString, int> m_unreadable; // absolute paths, and why
};

#endif // TRELLIS_ENTRYCOLLECTOR_P_H
