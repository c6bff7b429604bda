#include "FileMeasurer_p.h"

#include <QThread>

#include <utility>

#include <sys/stat.h>

void FileMeasurer::measure(const std::shared_ptr<const Directory> &directory,
                           const QByteArray &name, qint64 *size)
{
    if (m_gathering.directory != directory) {
        handOver();
        m_gathering.directory = directory;
    }
    m_gathering.names.push_back(name);
    m_gathering.sizes.push_back(size);
}

bool FileMeasurer::finish()
{
    handOver();
    if (m_thread) {
        // The walk is over: it looks at what still waits alongside the
        // thread, rather than wait for the thread to get through it alone.
        Batch waiting;
        while (m_thread->takeWaiting(waiting))
            look(waiting);
    }
    m_thread.reset();
    return m_anyGone.exchange(false);
}

// Hands the gathered batch over to the thread, or looks at it here.
void FileMeasurer::handOver()
{
    Batch batch = std::exchange(m_gathering, {});
    if (batch.names.empty())
        return;
    if (!m_thread && batch.names.size() >= MinFilesForThread && QThread::idealThreadCount() > 1)
        m_thread.emplace(1, MaxWaitingDirectories,
                         [this](const Batch &handedOver) { look(handedOver); });
    // With the thread behind, the walk looks for itself rather than wait.
    if (!m_thread || !m_thread->handOver(batch, JobPool<Batch>::WhenFull::Refuse))
        look(batch);
}

void FileMeasurer::look(const Batch &batch)
{
    for (std::size_t i = 0; i < batch.names.size(); ++i) {
        struct stat status;
        const bool there
                = ::fstatat(batch.directory->fd(), batch.names[i].constData(), &status, 0) == 0;
        *batch.sizes[i] = there ? qint64(status.st_size) : -1;
        if (!there)
            m_anyGone = true;
    }
}
