#ifndef TRELLIS_COPY_COPYTHREAD_H
#define TRELLIS_COPY_COPYTHREAD_H

#include <Trellis/TThreadedObject.h>

//! The worker thread the copy task lives in; the task needs no set-up of its own.
class CopyThread : public TThreadedObject
{
    Q_OBJECT

public:
    CopyThread();

protected:
    void Initialize() override;
    void Finalize() override;
};

#endif // TRELLIS_COPY_COPYTHREAD_H
