#include "TThreadedObject.h"

#include "TThread.h"
#include "TsanAnnotations.h"

class TThreadedObjectPrivate
{
public:
    TThreadedObjectPrivate(TThreadedObject &owner, const QString &name) : thread(owner, name) { }

    TThread thread;
};

TThreadedObject::TThreadedObject(const QString &name)
    : QObject(nullptr), d(std::make_unique<TThreadedObjectPrivate>(*this, name))
{ }

TThreadedObject::~TThreadedObject() = default;

void TThreadedObject::start(QThread::Priority priority)
{
    d->thread.start(priority);
}

void TThreadedObject::Stop()
{
    Q_EMIT AboutToStop();
    d->thread.quit();
}

bool TThreadedObject::wait()
{
    const bool finished = d->thread.wait();
    if (finished)
        tsanAcquire(&d->thread);
    return finished;
}

bool TThreadedObject::isRunning() const
{
    return d->thread.isRunning();
}

void TThreadedObject::MoveToThisThread(QObject *object)
{
    if (object)
        object->moveToThread(&d->thread);
}
