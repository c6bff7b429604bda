// An application built against an installed Trellis: it must find every
// public header through the umbrella and link with nothing but the package.
#include <Trellis/Trellis.h>

#include <cstdlib>

int main()
{
    TQueue queue(16, 4, QStringLiteral("consumer"));
    const char text[] = "installed";
    char received[16] = {};
    if (TQueue::SendMsg(queue.GetQueueId(), text, sizeof text, TQueue::QueueNoWait) != 0
        || queue.ReceiveMsg(received, sizeof received, TQueue::QueueNoWait) != int(sizeof text))
        return 1;
    AlignedFree(std::malloc(32));
    return 0;
}
