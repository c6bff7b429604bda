#include "BackgroundSync_p.h"

#include <system_error>

#include <unistd.h>

void BackgroundSync::start()
{
    wait();
    try {
        m_running = std::async(std::launch::async, [fd = m_fd] { ::fsync(fd); });
    } catch (const std::system_error &) {
        ::fsync(m_fd); // no thread to be had: flush here
    }
}

void BackgroundSync::wait()
{
    if (m_running.valid())
        m_running.get();
}
