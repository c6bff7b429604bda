#ifndef TRELLIS_TFILESYSTEMHELPER_H
#define TRELLIS_TFILESYSTEMHELPER_H

#include <Trellis/trellis_export.h>

#include <QRegExp>
#include <QString>
#include <QStringList>

class QObject;

/*!
    File name rules, single-file copy with progress, deletion of files by
    name filter, gzip-compressed tar archives, and the copy and deletion of
    directory trees.

    All members are static and the class is never instantiated. Every function
    may be called from any thread; none keeps state between calls except the
    constant values of the file name rules, which are built once, on first
    use, under the runtime's thread-safe initialisation of local statics.
    Nothing is logged and nothing is thrown: a bool (true = done) or the
    result code of DeleteFiles() is the only report.
*/
class TRELLIS_EXPORT TFileSystemHelper
{
public:
    TFileSystemHelper() = delete;

    // File name rules. They apply to one name, not to a path: '/' is invalid.

    /*!
        Returns the characters a file name may not contain, in this order:
        backslash, slash, colon, asterisk, question mark, double quotation
        mark, less-than sign, greater-than sign, vertical bar and full stop.
        Every call returns the same object.
    */
    static const QString &GetInvalidFileNameString();

    /*!
        Returns "The special character '.' cannot appear at the start or end
        of the name", translated in the context "TFileSystemHelper". The
        translation is looked up at the first call; a translator installed or
        removed later does not change the text. Every call returns the same
        object.
    */
    static const QString &GetInvalidFileNameErrorMessage();

    /*!
        Returns true when \a fileName is not empty, contains none of the
        characters of GetInvalidFileNameString() and neither begins nor ends
        with '.'. Since '.' is itself invalid, a valid name holds no '.'.
    */
    static bool IsValidFileName(QString fileName);

    /*!
        Makes \a fileName valid in place: every invalid character becomes '_',
        and so does a '.' at its start or end. An empty name stays empty (and
        invalid); any other result passes IsValidFileName().
    */
    static void GetValidFileName(QString &fileName);

    /*!
        Returns the pattern "\.([a-z]{3})$", case-insensitive: a '.' and
        exactly three letters A to Z, in either case, at the end of the text.
        Capture 1 is the three letters, capture 0 the '.' with them.

        Every call returns the same object. Matching with it records the
        captures in that shared object, so a thread that matches copies it
        first (copies are cheap) and matches with its copy.
    */
    static const QRegExp &CaseInsensitiveFilenameExtensionRegExp();

    /*!
        Returns the pattern "\.([A-Z]{3})$", case-sensitive: a '.' and three
        upper-case letters at the end of the text. Shared like
        CaseInsensitiveFilenameExtensionRegExp().
    */
    static const QRegExp &UpperCaseFilenameExtensionRegExp();

    /*!
        Returns the pattern "\.([a-z]{3})$", case-sensitive: a '.' and three
        lower-case letters at the end of the text. Shared like
        CaseInsensitiveFilenameExtensionRegExp().
    */
    static const QRegExp &LowerCaseFilenameExtensionRegExp();

    /*!
        Returns \a path with a final three-letter extension lower-cased:
        "/media/card/PHOTO.JPG" gives "/media/card/PHOTO.jpg", ".ABC" gives
        ".abc". Only the last four characters can change; extensions of other
        lengths or holding other characters than A to Z are left as they are.
        This is the name under which FileCopyWithProgress() writes its copy.

        Safe to call from many threads at once: each call matches with its
        own copy of the pattern.
    */
    static QString FileCopyLowerCaseDestFilename(const QString &path);

    // Copying one file.

    /*!
        Copies the regular file \a srcFile to \a destFile, whose directory
        must exist, and returns true when the whole source was copied.

        The copy is written under FileCopyLowerCaseDestFilename(\a destFile).
        Anything at \a destFile and at that name is removed first (a symbolic
        link there is removed as a link, never written through); if the
        latter cannot be removed the result is false. The copy is then
        created as a new file, never opened through whatever appeared at its
        name meanwhile: something put there again is removed again, up to
        eight times, and then the result is false.
        Only a regular file or a block device is read. Any other source (a
        directory, a FIFO, a socket, a character device such as /dev/zero)
        counts as a source that cannot be opened, at once: the call never
        blocks on it nor reads without end. The source is copied in
        chunks of 4096 bytes, as far as what can be seen goes: the kernel
        copies them (copy_file_range(), which lets a file system share the
        blocks) in pieces that end where a flush is due; where it cannot
        (across some file systems, from a block device), they are read one
        by one and written in batches of up to 1 MiB, as a buffered QFile
        would gather them. The holes of a sparse source stay holes in the
        copy, which then takes no more room than the source, wherever the
        kernel copies; a hole counts as copied, for flushes and progress
        calls, when the copy passes it. The copy is flushed to the disk with fsync() after
        the chunk that brings the bytes copied since the last flush to
        16,000,000 (decimal) or more, in the background while the copy goes
        on, and after its last chunk, when
        the function waits for every flush; an empty source is never
        flushed. The result of fsync() is not looked at: a copy reported done
        is complete in the file, and as durable as the file system made it.
        The last chunk is the one that leaves nothing to read by the
        source's size, but the copy reads on until a read finds the end: what
        the source gains meanwhile, also while the progress method runs at
        the last chunk, is copied too, and a source whose size tells nothing
        (a block device, most files under /proc) is copied whole, each of its
        chunks a last one, flushed and reported.
        When the source is exhausted, the copy gets the source's permissions
        plus QFile::WriteOther and, when \a stampFileTime is true, the offset
        clock's current minute as its access and modification time (as
        TLocalTime::setFileTime() gives them), both on the file this call
        created, through its descriptor. The permissions are those the
        source had when it was opened.

        When \a receiver and \a member are both given, \a member names a
        method of \a receiver without parentheses (for instance
        "OnBytesWritten") that is invokable through the meta-object system,
        returns bool and takes one qint64: the bytes written since its
        previous call. It is called through QMetaObject::invokeMethod() with
        Qt::AutoConnection when 100 milliseconds or more have passed since
        the previous call (or the start), and always after the last chunk, so
        for a source whose size does not change meanwhile the values add up
        to the file size. Returning false aborts the copy. A call that cannot
        be made (no such method, or a receiver in another thread, which
        cannot return a value) is skipped, with Qt's own warning, and the copy
        goes on.

        The result is false, and the copy left as far as it got (without the
        permissions and the stamp), when the source cannot be opened (the
        copy's old files are still removed), the copy cannot be created, a
        read fails, fewer bytes than read could be written, or the progress
        method returned false.

        Hazards this function closes:
        \list
        \li A source and destination that are one file are never copied: when
            \a destFile or its lower-cased name reaches the source's device
            and inode (the same path, a symbolic link either way, a hard
            link, an alias through the lower-cased extension, or a
            case-insensitive file system), the result is false and nothing
            is removed.
        \li Every byte read reaches the file descriptor before each fsync(),
            each progress call and any return, and the copy is stamped after
            its last byte, so the flushes make all of it durable, a receiver
            finds in the file what it was told, and nothing written later
            can change the stamp.
        \endlist

        Runs in the calling thread and blocks it until done; copies of
        different files may run at once in several threads.
    */
    static bool FileCopyWithProgress(const QString &srcFile, const QString &destFile,
                                     QObject *receiver, const char *member, bool stampFileTime);

    /*!
        Copies as the overload above does and, when \a error is not null,
        tells why a copy failed: \c *error becomes the \c errno value of the
        step that failed (for instance EACCES, ENOSPC or EIO), ECANCELED when
        the progress method returned false, EINVAL when source and
        destination are one file, ENOTSUP for a source that is neither a
        regular file nor a block device; 0 when the copy succeeded.
    */
    static bool FileCopyWithProgress(const QString &srcFile, const QString &destFile,
                                     QObject *receiver, const char *member, bool stampFileTime,
                                     int *error);

    /*!
        Copies \a srcFile to \a destFile exactly as FileCopyWithProgress()
        does, stamping the copy when \a stampFileTime is true, without
        progress calls.
    */
    static bool FileCopy(const QString &srcFile, const QString &destFile, bool stampFileTime);

    /*!
        The same, telling why a copy failed through \a error as
        FileCopyWithProgress() does.
    */
    static bool FileCopy(const QString &srcFile, const QString &destFile, bool stampFileTime,
                         int *error);

    // Deleting files by name filter.

    /*!
        Removes the files of the directory \a dirPath (an empty text means the
        working directory) whose names match the wildcard \a nameFilter (one
        pattern such as "*.log", used whole, compared without regard to case).
        Hidden files (names beginning with '.'), directories and special
        files are never touched, nor is anything in subdirectories; a
        symbolic link to a file is removed as a link.

        \a deletedFiles and \a failedFiles are cleared, then receive the bare
        names of the files removed and of those that could not be removed, in
        the order tried (by name, ignoring case).

        Returns:
        \list
        \li 1 when at least one file matched and every match was removed;
        \li 2 when at least one match could not be removed (the others were);
        \li 3 when the directory exists but nothing in it matches, which is
            always the case for a filter that is not a valid pattern, such
            as one with an unbalanced '[', and for a directory that cannot
            be listed (no read permission);
        \li 4 when the directory does not exist (or is not a directory).
        \endlist

        The directory is listed, and its files removed, through one
        descriptor, so a name is removed by its own bytes (also one in no
        valid encoding) and nothing outside the directory is reached.
    */
    static int DeleteFiles(const QString &nameFilter, const QString &dirPath,
                           QStringList &deletedFiles, QStringList &failedFiles);

    // Archives: gzip-compressed tar, through the program "tar" found on PATH.
    //
    // Each call starts tar without a shell, with the working directory and
    // environment of the process, and waits up to 30 seconds for it. The
    // result is true exactly when tar ended in that time, whether it
    // succeeded or not: a missing archive, directory or file gives true, and
    // a caller that needs more looks at the result on disk. It is false when
    // tar could not be started or was still running after 30 seconds; tar is
    // then killed, leaving a partial archive or unpacking behind.
    //
    // Names reach tar as names, never as options or remote archives. tar
    // takes the arguments of -f and -C as they stand, but would read a file
    // operand beginning with '-' as an option, the archive "-" as standard
    // input or output, and an archive with a ':' before its first '/' as
    // host:file. Such names are passed with "./" in front ("-x" becomes
    // "./-x", and "--checkpoint-action=exec=..." is a file like any other);
    // every other argument is passed as it stands. An operand that was
    // prefixed is stored in the archive with its "./".

    /*!
        Unpacks the archive \a archiveFile into the existing directory
        \a destDir: runs tar -xzf \a archiveFile -C \a destDir.

        Nothing is written outside \a destDir. Before unpacking, tar lists
        the archive (tar -tvzf, a second run with its own 30 seconds), and
        the archive is refused whole, with false and nothing written, when a
        member's name, or the name a hard link points to, is absolute or
        holds a ".." component, or when a member's path passes through a
        symbolic link that leads out of \a destDir: one the archive makes
        earlier, or one already in \a destDir (so two archives cannot do it
        in two steps either), chains of links followed. This is the one case
        where the result is false although tar would have ended. What
        another process changes in \a destDir while tar unpacks is not
        guarded against.
    */
    static bool Unzip(QString archiveFile, QString destDir);

    /*!
        Packs \a files (files and directories with their contents), named
        relative to \a baseDir, into the archive \a archiveFile: runs
        tar -czf \a archiveFile -C \a baseDir followed by \a files in list
        order. The entries are stored relative to \a baseDir. An empty list
        makes tar refuse to write an empty archive; the result is still true.
    */
    static bool Zip(QString archiveFile, QString baseDir, QStringList files);

    /*!
        Packs \a files, named relative to the working directory, into the
        archive \a archiveFile: runs tar -czf \a archiveFile followed by
        \a files in list order.
    */
    static bool Zip(QString archiveFile, QStringList files);

    // Directory trees.

    /*!
        Copies the contents of the directory \a sourceDir into \a destDir,
        which is created with its missing parents when absent and merged into
        when present. Returns true when the destination exists or could be
        created and every subdirectory and file under the source was copied.

        Files are copied with FileCopy(), stamped (so their names get a
        lower-cased three-letter extension and replace files of that name).
        Names beginning with '.', special files and links to missing targets
        are not copied; a link to a file or directory is copied as what it
        points to. In each directory the subdirectories are copied first,
        each completely, then the files, both in name order ignoring case;
        when a subdirectory fails, the directory's own files are not copied
        and the failure goes up to the top, while sibling subdirectories are
        still copied. Each destination directory is stamped with the offset
        clock (TLocalTime::setFileTime()) after its contents, also after a
        failure. Nothing is undone. A missing source gives a created, stamped,
        empty destination and true.

        Both trees are walked through descriptors: each directory below the
        tops is opened relative to its parent's, and files are copied
        relative to their directories, so nothing below the tops is found
        again by its path, names are kept as the bytes the file system gives
        (a name in no valid encoding is copied like any other), and the
        depth is bounded by neither PATH_MAX nor the thread's stack. On the
        source side links are followed, as said above; on the destination
        side, below \a destDir, a link is never followed: a subdirectory
        whose copy would go through one fails. A source directory that cannot
        be listed (no permission, an I/O error) fails too, after its copy was
        created and stamped, and so does everything above it.

        Overlapping trees are refused, comparing devices and inodes, so no
        alias (a link, a bind mount) gets past:
        \list
        \li a destination that is the source or lies inside it (the deepest
            existing directory of \a destDir, as the kernel reads the path,
            and every directory above it): the result is false and nothing is
            created, written or stamped;
        \li below the top, a source directory that is already being copied
            further up the current descent (a linked directory leading back
            up, a cycle) or that is a directory the copy is writing into (a
            linked directory leading into the destination), and a
            destination directory that is one being read: it is not entered,
            nothing is created for it, and it counts as a subdirectory that
            could not be copied.
        \endlist
        So the call always ends and never writes into the source tree through
        a link; the single-file copy refuses to copy a file onto itself. A
        bind mount inside an existing destination that leads into the source
        is found at the top only.

        Walks and copies in the calling thread. Each copied file is flushed
        to the disk as FileCopy() does, but the last flush of each file is
        left to up to four threads of the call's own (at most 16 files
        waiting for one), so that copying goes on meanwhile and flushes share
        the file system's journal commits: a copied file gets its
        permissions and stamp before that flush, and the call returns only
        when every file it copied is flushed. As with FileCopy(), the
        results of the flushes are not looked at. Nothing coordinates
        concurrent writers of the same trees.
    */
    static bool CopyDir(const QString &sourceDir, const QString &destDir);

    /*!
        Copies as the overload above does and, when \a leftOut is not null,
        appends to it the path of each entry that the rules leave out (a
        hidden name, a special file, a link to nothing), in the order the
        copy meets them: \a sourceDir cleaned (QDir::cleanPath()) followed
        by the entry's path below it. A hidden directory is one entry; what
        it holds is not looked at. Directories refused because they lead
        back into the tree or into the copy are failures, not left out.
    */
    static bool CopyDir(const QString &sourceDir, const QString &destDir, QStringList *leftOut);

    /*!
        Deletes what the directory \a dirPath holds, subdirectories included,
        and when \a deleteRootDir is true the directory itself.

        Files are given the permissions QFile::WriteUser alone, then removed
        (the permission change stays when the removal fails). With
        \a ignoreErrors false the work stops at the first entry that cannot
        be deleted and the result is false; with \a ignoreErrors true every
        entry that can be deleted goes. Then, when \a deleteRootDir is true,
        the directory itself is removed and the result is whether that
        worked; otherwise the result is true (always true with
        \a ignoreErrors true). A \a dirPath that is not an existing directory
        gives true at once.

        Hidden entries (names beginning with '.'), special files and links to
        missing targets are not seen, so a directory holding them cannot be
        removed.

        Nothing outside the tree is changed, whatever another process does
        to the tree meanwhile: a symbolic link inside the tree is removed as
        a link, its target's contents and permissions untouched; a file that
        has other hard links keeps its permissions, since they are those of
        every name of the file. Each directory below \a dirPath is opened
        relative to its parent's descriptor without following a link, and
        its entries are looked at and removed relative to its own, so a
        directory swapped for a link while the walk goes on is removed as a
        link. The walk's depth is bounded by neither PATH_MAX nor the
        thread's stack nor the process's descriptors. A directory that
        cannot be listed fails like an entry that cannot be deleted (it is
        still removed when it is empty). The top \a dirPath
        itself is taken as the caller names it: a link there names the
        directory it points to, which is emptied, and the link itself
        is not removed (the result is then false when \a deleteRootDir is
        true).

        The subdirectories of \a dirPath are deleted in parallel, by up to
        four threads, the calling one among them (fewer when no more can be
        started): deleting is mostly waiting for the file system, which
        serves several directories at once. The call returns when all are
        done. With \a ignoreErrors false, the first failure stops every
        thread, so which other entries are gone by then varies. Entries
        appearing while it runs may or may not be seen.
    */
    static bool DeleteDirGeneric(const QString &dirPath, bool ignoreErrors, bool deleteRootDir);
};

#endif // TRELLIS_TFILESYSTEMHELPER_H
