#ifndef TRELLIS_COPY_SIGNALNOTIFIER_H
#define TRELLIS_COPY_SIGNALNOTIFIER_H

#include <QObject>

/*!
    Turns SIGINT, SIGTERM, SIGHUP and SIGPIPE into Signalled(), delivered by
    the event loop: the handler only writes the number into a pipe. A second
    SIGINT, SIGTERM or SIGHUP ends the process at once; SIGPIPE stays caught,
    so that a write to a closed pipe fails with EPIPE. One instance at a time.
*/
class SignalNotifier : public QObject
{
    Q_OBJECT

public:
    explicit SignalNotifier(QObject *parent = nullptr);
    ~SignalNotifier() override;

signals:
    void Signalled(int signalNumber);

private:
    void Drain();

    int m_pipe[2];
};

#endif // TRELLIS_COPY_SIGNALNOTIFIER_H
