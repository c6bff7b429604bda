// filecopy_probe SOURCE DESTINATION [FILE-SIZE-LIMIT]
//
// Copies SOURCE to DESTINATION with TFileSystemHelper::FileCopy (no stamp),
// or with CopyDir when SOURCE is a directory, and exits with 0 when the copy
// returned true, 1 when it returned false and 2 on bad usage. With
// TRELLIS_PROBE_NO_KERNEL_COPY set, copy_file_range() fails with ENOSYS, as
// on a kernel without it; where no seccomp filter can be installed (under an
// emulator) the probe exits with 3 before copying. With a limit, files this process
// writes may not grow past that many bytes: a write beyond it fails instead of killing the process.
// The tests run it under strace and with such a limit.

#include <Trellis/TFileSystemHelper.h>

#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

// Makes copy_file_range() fail with ENOSYS in this process.
static bool refuseKernelCopy()
{
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_copy_file_range, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const struct sock_fprog program = { sizeof filter / sizeof filter[0], filter };
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0
            && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

int main(int argc, char **argv)
{
    struct rlimit fileSize = {};
    getrlimit(RLIMIT_FSIZE, &fileSize);
    if (argc == 4)
        fileSize.rlim_cur = fileSize.rlim_max = std::strtoull(argv[3], nullptr, 10);
    if (argc < 3 || argc > 4 || std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR
        || setrlimit(RLIMIT_FSIZE, &fileSize) != 0)
        return 2;
    if (std::getenv("TRELLIS_PROBE_NO_KERNEL_COPY") && !refuseKernelCopy())
        return 3;
    const QString source = QString::fromLocal8Bit(argv[1]),
                  destination = QString::fromLocal8Bit(argv[2]);
    return QFileInfo(source).isDir() ? !TFileSystemHelper::CopyDir(source, destination)
                                     : !TFileSystemHelper::FileCopy(source, destination, false);
}
