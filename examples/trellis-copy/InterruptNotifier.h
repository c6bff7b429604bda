#ifndef TRELLIS_COPY_INTERRUPTNOTIFIER_H
#define TRELLIS_COPY_INTERRUPTNOTIFIER_H

#include <QObject>
#include <QSocketNotifier>

/*!
    Turns the first SIGINT (Ctrl-C) into the signal Interrupted(), delivered
    by the event loop of the thread that created the notifier.

    The handler only writes a byte into a pipe, which a QSocketNotifier
    watches, so nothing but that write happens in signal context. It is
    installed for one delivery: a second SIGINT gets the default action and
    ends the process at once. One instance at a time.
*/
class InterruptNotifier : public QObject
{
    Q_OBJECT

public:
    explicit InterruptNotifier(QObject *parent = nullptr);

    //! Restores the default action of SIGINT and closes the pipe.
    ~InterruptNotifier() override;

signals:
    void Interrupted();

private:
    void Drain();

    int m_pipe[2];
    QSocketNotifier *m_notifier;
};

#endif // TRELLIS_COPY_INTERRUPTNOTIFIER_H
