// An application built against an installed Trellis: it must find every
// public header through the umbrella and link with nothing but the package.
#include <Trellis/Trellis.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main()
{
    unsigned int error = TQueue::QueueErrBadTimeout;
    TQueue *queue = TQueue::CreateQueue(16, 4, QStringLiteral("consumer"), &error);
    if (!queue || error != TQueue::QueueErrNone)
        return 1;
    const char text[] = "installed";
    if (TQueue::SendMsg(queue->GetQueueId(), text, sizeof text, TQueue::QueueNoWait) != 0)
        return 2;
    char received[16] = {};
    if (TQueue::ReceiveMsg(queue->GetQueueId(), received, sizeof received, TQueue::QueueNoWait,
                           &error)
                != int(sizeof text)
        || std::strcmp(received, text) != 0)
        return 3;
    if (TQueue::DestroyQueue(queue->GetQueueId()) != TQueue::QueueErrNone)
        return 4;
    AlignedFree(std::malloc(32));
    std::puts("consumer: Trellis works from an installed prefix");
    return 0;
}
