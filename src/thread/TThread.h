#ifndef TRELLIS_TTHREAD_H
#define TRELLIS_TTHREAD_H

#include <QString>
#include <QThread>

class TThreadedObject;

// The worker thread of a TThreadedObject.
//
// It moves its owner into itself when it is constructed. Each run names the
// thread, tells the naming hook, and drives the owner's hooks and lifecycle
// signals around a Qt event loop. Internal to the library.
class TThread : public QThread
{
public:
    TThread(TThreadedObject &owner, const QString &name);

protected:
    void run() override;

private:
    TThreadedObject &m_owner;
    const QString m_name;
};

#endif // TRELLIS_TTHREAD_H
