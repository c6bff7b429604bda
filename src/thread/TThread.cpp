#include "TThread.h"

#include "TThreadedObject.h"
#include "ThreadNameProxy.h"
#include "TsanAnnotations.h"

#include <sys/prctl.h>

TThread::TThread(TThreadedObject &owner, const QString &name) : m_owner(owner), m_name(name)
{
    m_owner.moveToThread(this);
}

void TThread::run()
{
    const QByteArray name = m_name.toLatin1();
    // The kernel keeps the first 15 bytes; a failure leaves the thread with
    // the name it inherited, which is no reason to stop it.
    prctl(PR_SET_NAME, name.constData(), 0, 0, 0);
    if (ThreadNameProxy *hook = ThreadNameProxy::proxy().load(std::memory_order_acquire))
        hook->SetThreadName(name.constData());

    Q_EMIT m_owner.AboutToInitialize();
    m_owner.Initialize();
    Q_EMIT m_owner.Initialized();

    exec();

    Q_EMIT m_owner.AboutToFinalize();
    m_owner.Finalize();
    Q_EMIT m_owner.Finalized();
    // Everything the run did happens before a wait() that sees it finished.
    tsanRelease(this);
}
