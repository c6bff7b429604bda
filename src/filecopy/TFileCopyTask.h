#ifndef TRELLIS_TFILECOPYTASK_H
#define TRELLIS_TFILECOPYTASK_H

#include <Trellis/TFileCopyNotifier.h>
#include <Trellis/trellis_export.h>

#include <QFileInfo>
#include <QList>
#include <QObject>
#include <QRegExp>
#include <QString>

#include <functional>
#include <memory>

class TFileCopyTaskPrivate;

/*!
    Copies batches of files and directories into a destination tree, pausing
    to ask what to do when a destination already exists, and reports its
    state, its progress and every copied entry through signals.

    \section1 A batch

    CopyFiles() hands over a batch and queues one pass of the private slot
    Run() into the event loop of the thread that the task lives in. The task
    is a plain QObject and creates no thread: it copies in its own thread,
    which may be the application's main thread or, after
    TThreadedObject::MoveToThisThread(), a worker thread. That thread must run
    an event loop.

    A pass first splits the sources into work items and measures the batch
    (the sum of QFileInfo::size() of every entry, directories included), then
    takes the work items one at a time from the end of the list, so that of
    the sources A and B, B is copied first. For each item it decides, by its
    destination and the current EFileExistsAction, whether to copy it, skip
    it or pause to ask, then copies or skips every entry of the item: its
    files, and its directories that hold no visible entry. The pass ends when
    no item is left, when it must ask, when an entry failed to copy with items
    left, or when a stop was requested; it then emits State() once. A paused
    or stopped batch is only data: the next continue slot (or CopyFiles())
    queues the next pass.

    Each file is copied and flushed to the disk as
    TFileSystemHelper::FileCopyWithProgress() does, except that the last
    flush of each file is left to up to four threads of the pass's own (at
    most 16 files waiting for one), so that copying goes on meanwhile and
    flushes share the file system's journal commits. A file is reported by
    FileCopied() when its copy is complete, possibly before that flush; the
    pass reports its State() only when every file it copied is flushed. As
    with the single-file copy, the results of the flushes are not looked at.
    While a batch or an item is listed, on a machine with more than one
    processor, one more thread of the pass's own measures the files of
    directories listed (one look at each), so that listing and measuring
    go on together; it ends before the listing returns.

    \section1 Paths

    The destination of a source path is the path with the match of the
    source prefix replaced by the destination prefix, in which \c %1 stands
    for the complete base name (QFileInfo::completeBaseName()) of the entry
    being copied (and, when the pass tests whether a work item's destination
    exists, for the item's own name). With the source prefix \c /data and the destination prefix
    \c /backup/%1, the file \c /data/a/report.txt goes to
    \c /backup/report/a/report.txt. A destination prefix without a place
    marker is used as it stands, and the replacement text is taken
    literally (a backslash in it is an ordinary character).

    The copy of a file is written under its destination path with a final
    three-letter extension lower-cased
    (TFileSystemHelper::FileCopyLowerCaseDestFilename()), so \c Photo.JPG is
    written as \c Photo.jpg; a destination that exists under either name is
    a conflict.

    Files that follow each other into one destination directory are written
    through one descriptor of it, which the pass opens for the first of
    them: a directory renamed meanwhile takes the rest of them along, and
    one removed meanwhile is made again by its path for the next file.

    \section1 Which entries are copied

    A directory is listed with its files and subdirectories, in name order
    ignoring case; hidden entries inside it are neither copied nor counted,
    and a directory that holds only hidden entries is recreated empty. A
    hidden file or directory named directly in the sources is copied.
    Symbolic links to files and directories are followed.

    A directory is not descended into when it is, by device and inode, one
    that contains the directory being listed: a directory on the way down
    from the source or work item being listed, or one above it. A link that
    leads back up (directly or through other links) is thus not followed, and
    the directory holding it is copied without it. Every descent therefore
    ends, whatever the depth, also with a negative depth, and the entries do
    not depend on the depth at which the batch is split.

    A work item or an entry that is gone when its turn comes is passed over
    without a count or a signal, and whatever exists at its destination is
    left as it is.

    Entries are named by text (QFileInfo), so an entry whose name the
    locale's encoding cannot represent cannot be copied: it fails to copy
    where it is met, as does a directory that cannot be listed, rather than
    being left out unseen.

    What the task leaves out, and every entry that fails, is told entry by
    entry through the signals of its Notifier(). WorkItems(), Entries(),
    DestinationPath() and ExistingDestination() show the plan of a batch without copying anything,
   by the same rules.

    \section1 Threads and locks

    The task keeps its fields under one non-recursive mutex, and a stop
    request in an atomic flag.
    \list
    \li Run() (the whole pass), OnBytesWritten() and every signal of a pass
        execute in the task's own thread.
    \li CopyFiles(), SetFileExistAction() and the continue slots may be called
        directly from any thread; each takes the mutex for a moment, so a call
        made while a pass runs in another thread waits until the pass pauses
        or ends.
    \li Stop() may be called directly from any thread and takes no lock. It is
        the one call that acts on a pass in progress; a Stop() queued into the
        task's thread arrives after the pass it was meant for.
    \li Progress() and FileCopied() are emitted with the mutex held; State()
        is emitted without it. A receiver that runs synchronously inside
        Progress() or FileCopied() (a direct connection, or an automatic one
        within the task's thread) must not call CopyFiles(),
        SetFileExistAction() or a continue slot: it would wait on itself. It
        may call Stop(). A receiver of State() may call anything.
    \li Every QFileInfo that a signal carries is a fresh object of its own,
        so receivers in other threads may use it freely.
    \endlist

    The constructor registers QFileInfo with the meta-type system under the
    name "QFileInfo", so that the signals cross threads through queued
    connections. EFileExistsAction is declared with Q_ENUM: a queued
    connection made with member-function pointers to Continue(),
    ContinueRename() or SetFileExistAction() works as it is, while one made
    by name (the SIGNAL() and SLOT() macros, or QMetaObject::invokeMethod()
    with arguments) needs the application to call
    qRegisterMetaType<TFileCopyTask::EFileExistsAction>("EFileExistsAction")
    first.

    Delete the task from the thread it lives in, or after that thread has
    finished; a paused or pending batch is then dropped without signals.
*/
class TRELLIS_EXPORT TFileCopyTask : public QObject
{
    Q_OBJECT

public:
    /*!
        What a pass does with a work item whose destination exists. The
        numbers are part of the interface.

        Any other value never pauses and never skips: a conflicting item is
        copied over its destination as with OverwriteAll, and the value is
        kept.
    */
    enum EFileExistsAction : int {
        //! Pause in state StateFileExists and wait for a continue slot. Kept
        //! after each item.
        Ask = 0,
        //! Copy the item over the existing destination. Spent by the next
        //! processed item, conflicting or not: becomes Ask.
        Overwrite = 1,
        //! Copy the item over the existing destination. Kept, also for later
        //! batches.
        OverwriteAll = 2,
        //! Leave the item uncopied and count its entries as skipped. Spent
        //! like Overwrite: becomes Ask.
        Skip = 3,
        //! Like Skip, and kept, also for later batches.
        SkipAll = 4
    };
    Q_ENUM(EFileExistsAction)

    /*!
        The state codes, as carried by State(). Only the last three are ever
        reported.
    */
    enum ECopyState : int {
        //! Set by CopyFiles(): the next pass expands the new batch.
        StatePreparing = 0,
        //! The pass may take the next work item; set by the pass after the
        //! expansion and by the continue slots.
        StateCopying = 1,
        //! Paused: the destination of the current work item exists and the
        //! action was Ask. Reported with that item; a continue slot retries
        //! it.
        StateFileExists = 2,
        //! Paused: an entry failed to copy and work items remain. Reported
        //! with the next pending item; a continue slot goes on with it. The
        //! rest of the failed item is dropped.
        StateCopyFailed = 3,
        //! Nothing in progress: the batch is done, or was stopped, or there
        //! was nothing to do; also the state of a new task. Reported with an
        //! empty QFileInfo when no item remains, otherwise (after a stop)
        //! with the next pending item, and a continue slot resumes the
        //! batch.
        StateFinished = 4
    };
    Q_ENUM(ECopyState)

    /*!
        Creates a task in state StateFinished with no batch, whose action for
        existing destinations is \a action (Ask unless given). The task has no
        parent and lives in the constructing thread until it is moved.
    */
    explicit TFileCopyTask(EFileExistsAction action = Ask);

    /*!
        Destroys the task; a paused, stopped or pending batch is dropped
        without signals.
    */
    ~TFileCopyTask() override;

    /*!
        Hands over a new batch and queues a pass to copy it; returns at once.

        \a sources are the files and directories to copy. Those that do not
        exist when the pass starts are dropped silently, and so are those
        whose absolute path \a srcPrefix does not match.

        \a srcPrefix is a regular expression (QRegExp::RegExp syntax, case
        sensitive), anchored with a leading "^", that matches the leading part
        of every absolute source path to be replaced. A caller that means a
        literal path escapes it with QRegExp::escape(). An empty prefix
        matches every path, and each destination is then the destination
        prefix followed by the whole absolute source path. The prefix must
        match every path beneath the sources too: an entry that it does not
        match has no destination and fails to copy.

        \a destPrefix replaces the match; a \c %1 in it stands for the
        complete base name of each entry. The replacement is
        QString::replace()'s: where the source prefix captures, \c \1 to
        \c \9 in \a destPrefix stand for what it captured, and an
        alternative that the "^" does not anchor (\c a|b) matches, and is
        replaced, wherever it occurs in a path.

        \a depth is the number of directory levels below each source at which
        the batch is split into work items, which are the units that a
        conflict is detected and answered for. 0 makes each source one work
        item: a source directory whose destination directory exists raises
        one question for all it holds. A negative depth splits down to single
        files and empty directories. Each work item is copied whole (to 100
        directory levels below it).

        Resets the counters and the state to StatePreparing and emits
        Progress(0, 0, 0) in the calling thread. Abandons a batch that is
        paused or stopped. The action for existing destinations is kept (an
        OverwriteAll or SkipAll answer governs the next batch too), and so
        are a rename prefix not yet spent (ContinueRename()) and a stop
        request not yet seen (every pass clears it when it starts).

        May be called from any thread; takes the mutex.
    */
    void CopyFiles(const QList<QFileInfo> &sources, const QString &srcPrefix,
                   const QString &destPrefix, int depth);

    /*!
        The notifier that tells of the entries this task leaves out and of
        those that fail, with the cause. It is a child of the task and lives
        in the task's thread.
    */
    TFileCopyNotifier *Notifier() const;

    //! Receives an entry that the rules leave out, with the reason.
    using LeftOutReceiver
            = std::function<void(const QFileInfo &entry, TFileCopyNotifier::LeftOutReason reason)>;

    /*!
        The work items that a pass splits \a source into at \a depth, as
        CopyFiles() documents the depth, in the order of the split: a pass
        works its list from the end. Before the source prefix is applied; an
        empty list for a source that does not exist. \a leftOut, when set,
        receives what the split leaves out above the items.

        Looks at the file system as a pass would, in the calling thread, and
        may be called from any thread.
    */
    static QList<QFileInfo> WorkItems(const QFileInfo &source, int depth,
                                      const LeftOutReceiver &leftOut = {});

    /*!
        The entries of the work item \a workItem, in the order a pass copies
        or skips them: its files, and its directories that hold nothing to
        copy. A directory that cannot be listed, and an entry whose name the
        locale's encoding cannot represent, are entries too: they fail to
        copy. \a leftOut, when set, receives what the rules leave out inside
        the item.

        Looks at the file system as a pass would, in the calling thread, and
        may be called from any thread.
    */
    static QList<QFileInfo> Entries(const QFileInfo &workItem, const LeftOutReceiver &leftOut = {});

    /*!
        Where a pass copies \a entry for the source prefix \a srcPrefix and
        the destination prefix \a destPrefix, both as CopyFiles() takes
        them: the absolute path with the match of the source prefix replaced
        by the destination prefix, whose \c %1 stands for the entry's
        complete base name. A null string when the source prefix does not
        match. A file is written under
        TFileSystemHelper::FileCopyLowerCaseDestFilename() of this path.
    */
    static QString DestinationPath(const QFileInfo &entry, const QString &srcPrefix,
                                   const QString &destPrefix);

    /*!
        What makes the work item \a workItem a conflict for a pass with these
        prefixes, as the pass tests it: the item's DestinationPath() when
        something exists there or, for a file, the name its copy is written
        under when that exists. A null string when the item has no conflict,
        also when it no longer exists. Looks at the file system in the
        calling thread; may be called from any thread.
    */
    static QString ExistingDestination(const QFileInfo &workItem, const QString &srcPrefix,
                                       const QString &destPrefix);

signals:
    /*!
        Emitted once at the end of every pass, without the mutex held, with
        the state the pass ended in (StateFileExists, StateCopyFailed or
        StateFinished) and the work item it concerns, or an empty QFileInfo
        when none remains.
    */
    void State(int state, const QFileInfo &currentFile);

    /*!
        Reports progress, with the mutex held. \a percentComplete is the share
        of the batch's measured bytes written or skipped so far, rounded to the
        nearest integer and never above 99 while the batch runs; it is 100
        only in the reports that end a completed batch. \a filesCopied and
        \a fileSkipped count the entries copied and skipped in the batch.
        CopyFiles() emits Progress(0, 0, 0); the copier's reports during each
        file follow; a completed batch ends with Progress(100, filesCopied,
        fileSkipped). A pass that finds nothing to do emits Progress(100, 0, 0)
        first, and the closing report only when no stop was requested by
        then, also by a receiver of the first.
    */
    void Progress(int percentComplete, int filesCopied, int fileSkipped);

    /*!
        Emitted with the mutex held for each entry copied successfully, with
        the source entry. A directory entry counts as copied even when its
        destination directory could not be created.
    */
    void FileCopied(const QFileInfo &file);

public slots:
    /*!
        Requests a stop of the pass in progress; takes no lock and returns at
        once. The copier stops at its next report (the entry fails with
        ECANCELED, told by the notifier's EntryFailed(), and is not counted,
        and its destination keeps the bytes written so far), or
        the pass stops after the current entry. The pass then drops the rest
        of the current work item, ends in StateFinished with the next pending
        item and emits no Progress(100, ...). A continue slot resumes with
        the items not yet begun. A stop requested while no pass runs is
        discarded by the next pass.

        May be called from any thread, also by a receiver of Progress() or
        FileCopied().
    */
    void Stop();

    /*!
        Sets the action for existing destinations to \a action, without
        resuming a paused batch. Overwrite and Skip are spent by the next work
        item processed, whether or not it conflicts.

        May be called from any thread; takes the mutex.
    */
    void SetFileExistAction(EFileExistsAction action);

    /*!
        Sets the action to \a action and the state to StateCopying and queues
        a pass: a batch paused on an existing destination retries that item,
        one paused on a failure or stopped goes on with the next item, and one
        that is done ends at once (Progress(100, 0, 0), the closing
        Progress(100, ...) and State(StateFinished, QFileInfo())).

        A batch handed over by CopyFiles() whose pass has not started yet
        stays in StatePreparing: the answer sets its action, and neither
        resumes an abandoned batch in its place nor keeps the new one from
        being expanded.

        May be called from any thread; takes the mutex.
    */
    void Continue(EFileExistsAction action);

    //! Continue(Overwrite): overwrites the item asked about; the next conflict asks.
    void ContinueOverwrite();
    //! Continue(OverwriteAll): overwrites this and every later conflict.
    void ContinueOverwriteAll();
    //! Continue(Skip): skips the item asked about; the next conflict asks.
    void ContinueSkip();
    //! Continue(SkipAll): skips this and every later conflict.
    void ContinueSkipAll();

    /*!
        Retries the current work item with \a altDestPrefix in place of the
        destination prefix, then does Continue(\a action). \a action decides
        what happens if that destination exists as well: with Ask the pass
        pauses again on the same item, and a following ContinueOverwrite()
        overwrites the alternative destination. The alternative prefix is
        spent when the item has been processed; later items use the
        destination prefix again. An empty \a altDestPrefix clears an earlier
        one, so the item is retried under the destination prefix.

        May be called from any thread; takes the mutex.
    */
    void ContinueRename(EFileExistsAction action, const QString &altDestPrefix);

private slots:
    // One pass over the batch; queued by CopyFiles() and the continue slots.
    virtual void Run();

    // The copier's progress callback: adds the bytes written since its last
    // call, emits Progress() and tells the copier whether to go on. Called
    // only from inside Run(), which holds the mutex, so it takes no lock.
    bool OnBytesWritten(qint64 bytes);

private:
    friend class TFileCopyTaskPrivate;

    // Copies one entry as a pass does: from fileInfo's absolute path to that
    // path with pattern's match replaced by destPrefix, whose place marker
    // is filled in already. A pass copies its entries through the same code
    // without making a QFileInfo and a copy of the pattern for each.
    bool CopyFile(const QFileInfo &fileInfo, QRegExp pattern, const QString &destPrefix);

    const std::unique_ptr<TFileCopyTaskPrivate> d;
};

#endif // TRELLIS_TFILECOPYTASK_H
