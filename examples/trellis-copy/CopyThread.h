#ifndef TRELLIS_COPY_COPYTHREAD_H
#define TRELLIS_COPY_COPYTHREAD_H

#include <Trellis/TThreadedObject.h>

/*!
    The worker thread that the copy task is moved into, so that the main
    thread stays free for the terminal while files are copied. It needs no
    set-up of its own: the task brings everything it uses.
*/
class CopyThread : public TThreadedObject
{
    Q_OBJECT

public:
    CopyThread();

    //! Stops the worker thread and waits for it.
    ~CopyThread() override;

protected:
    void Initialize() override;
    void Finalize() override;
};

#endif // TRELLIS_COPY_COPYTHREAD_H
