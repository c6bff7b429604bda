#include "ThreadNameProxy.h"

ThreadNameProxy::~ThreadNameProxy() = default;

std::atomic<ThreadNameProxy *> &ThreadNameProxy::proxy()
{
    // Defined here, inside the library, so that the application and the
    // library refer to one variable however they are linked.
    static std::atomic<ThreadNameProxy *> imp { nullptr };
    return imp;
}
