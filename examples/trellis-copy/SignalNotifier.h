#ifndef TRELLIS_COPY_SIGNALNOTIFIER_H
#define TRELLIS_COPY_SIGNALNOTIFIER_H

#include <QObject>

/*!
    Turns SIGINT, SIGTERM, SIGHUP and SIGPIPE into Signalled(), delivered by
    the event loop: the handler only writes the number into a pipe. A second
    SIGINT, SIGTERM or SIGHUP ends the process at once; SIGPIPE stays caught,
    so that a write to a closed pipe fails with EPIPE. The handlers stay for
    the life of the process, so there is one instance.
*/
class SignalNotifier : public QObject
{
    Q_OBJECT

public:
    explicit SignalNotifier(QObject *parent = nullptr);

signals:
    void Signalled(int signalNumber);
};

#endif // TRELLIS_COPY_SIGNALNOTIFIER_H
