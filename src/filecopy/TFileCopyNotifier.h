#ifndef TRELLIS_TFILECOPYNOTIFIER_H
#define TRELLIS_TFILECOPYNOTIFIER_H

#include <Trellis/trellis_export.h>

#include <QFileInfo>
#include <QObject>

class TFileCopyTask;

/*!
    Tells what a TFileCopyTask did not copy, entry by entry: the entries that
    failed, with the cause, and those that the task's rules leave out. The
    task owns its notifier (TFileCopyTask::Notifier()), which lives, as a
    child of the task, in the task's thread.

    The signals are emitted by the pass, in the task's thread, with the
    task's mutex held, as TFileCopyTask::FileCopied() is: a receiver that
    runs synchronously (a direct connection, or an automatic one within the
    task's thread) must not call CopyFiles(), SetFileExistAction() or a
    continue slot of the task; a queued connection may do anything. Every
    QFileInfo they carry is an object of its own.

    LeftOutReason is declared with Q_ENUM, so a queued connection made with
    member-function pointers works as it is; one made by name needs
    qRegisterMetaType<TFileCopyNotifier::LeftOutReason>() first.
*/
class TRELLIS_EXPORT TFileCopyNotifier : public QObject
{
    Q_OBJECT

public:
    //! Why the task leaves an entry out of the copy.
    enum LeftOutReason : int {
        //! A name beginning with '.' inside a directory being copied.
        HiddenName,
        //! A named pipe, or a link to one.
        Fifo,
        //! A socket, or a link to one.
        Socket,
        //! A character or block device, or a link to one.
        Device,
        //! A symbolic link to nothing.
        DanglingLink,
        //! A directory, reached through a link (or a bind mount), that
        //! contains the directory being listed: following it would copy
        //! the tree into itself without end, so it is not entered.
        LinkIntoTree
    };
    Q_ENUM(LeftOutReason)

signals:
    /*!
        Emitted for every entry that fails to copy, the last of a batch
        included, before the pass reports its state. \a error is the
        \c errno value of the step that failed: ECANCELED when Stop()
        abandoned the entry, EILSEQ for a name that the locale's encoding
        cannot represent, the listing's error for a directory that cannot be
        listed, EINVAL for an entry that the source prefix does not match.
        A failed entry is neither counted nor reported by FileCopied().
    */
    void EntryFailed(const QFileInfo &entry, int error);

    /*!
        Emitted for each entry that the task's rules leave out of the copy,
        with the \a reason: while the pass splits a new batch into work items,
        for what it meets above the items, and while it collects each work
        item that it copies, for what it meets inside. A skipped work item
        reports nothing. A hidden directory is reported once, not its
        contents.
    */
    void EntryLeftOut(const QFileInfo &entry, TFileCopyNotifier::LeftOutReason reason);

private:
    friend class TFileCopyTask;
    explicit TFileCopyNotifier(TFileCopyTask *task);
};

#endif // TRELLIS_TFILECOPYNOTIFIER_H
