//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_THREADSTART_P_H
#define TRELLIS_THREADSTART_P_H

#include <system_error>
#include <thread>
#include <utility>
#include <vector>

// Starts function in a new thread added to threads. False when the system
// gives no thread (too many, no memory): helper threads only share work
// that the calling thread can do alone, so that is no failure.
template<typename Function>
bool tryStartThread(std::vector<std::thread> &threads, Function &&function)
{
    try {
        threads.emplace_back(std::forward<Function>(function));
        return true;
    } catch (const std::system_error &) {
        return false;
    }
}

#endif // TRELLIS_THREADSTART_P_H
