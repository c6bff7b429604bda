#ifndef TRELLIS_COPY_SIGNALNOTIFIER_H
#define TRELLIS_COPY_SIGNALNOTIFIER_H

#include <QObject>
#include <QSocketNotifier>

/*!
    Turns SIGINT, SIGTERM, SIGHUP and SIGPIPE into the signal Signalled(),
    delivered by the event loop of the thread that created the notifier.

    The handler only writes the signal's number into a pipe, which a
    QSocketNotifier watches, so nothing but that write happens in signal
    context. SIGINT, SIGTERM and SIGHUP are caught once: a second one gets
    the default action and ends the process at once. SIGPIPE stays caught,
    so that a write to a closed pipe fails with EPIPE instead of killing the
    process. One instance at a time.
*/
class SignalNotifier : public QObject
{
    Q_OBJECT

public:
    explicit SignalNotifier(QObject *parent = nullptr);

    //! Restores the default actions and closes the pipe.
    ~SignalNotifier() override;

signals:
    void Signalled(int signalNumber);

private:
    void Drain();

    int m_pipe[2];
    QSocketNotifier *m_notifier;
};

#endif // TRELLIS_COPY_SIGNALNOTIFIER_H
