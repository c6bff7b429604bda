#include "RecordingWorker.h"

#include <Trellis/ThreadNameProxy.h>

#include <QtTest>

// A naming hook that logs the names it is given, as an application would
// install it. Its own program, because the hook is process-wide.
class RecordingProxy : public ThreadNameProxy
{
public:
    void SetThreadName(const char *name) override { log.record(QString::fromLatin1(name)); }

    EventLog log;
};

class tst_ThreadNameProxy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void noHookByDefault();
    void hookGetsWholeName();
    void removedHookIsNotCalled();

private:
    RecordingProxy m_proxy;
};

void tst_ThreadNameProxy::noHookByDefault()
{
    QCOMPARE(ThreadNameProxy::proxy().load(), nullptr);
    RecordingWorker worker(QStringLiteral("unhooked"));
    QVERIFY(worker.runOnce());
    QCOMPARE(worker.log.events(), RecordingWorker::fullRun());
    QCOMPARE(worker.osName(), QByteArray("unhooked"));
}

void tst_ThreadNameProxy::hookGetsWholeName()
{
    ThreadNameProxy::proxy() = &m_proxy;
    const QString name = QStringLiteral("Archive-Packer-No-19");
    RecordingWorker worker(name);

    // The hook runs before Initialize(), once per start, in the worker thread.
    worker.start();
    QVERIFY(worker.waitUntilInitialized());
    QCOMPARE(m_proxy.log.events(), QStringList { name });
    worker.Stop();
    QVERIFY(worker.wait());
    QVERIFY(worker.runOnce());

    QCOMPARE(m_proxy.log.events(), QStringList({ name, name }));
    QCOMPARE(m_proxy.log.threads(), QList<QThread *>({ worker.thread(), worker.thread() }));
    QCOMPARE(worker.osName(), QByteArray("Archive-Packer-"));
}

void tst_ThreadNameProxy::removedHookIsNotCalled()
{
    ThreadNameProxy::proxy() = nullptr;
    const int calls = m_proxy.log.events().size();
    RecordingWorker worker(QStringLiteral("unhooked again"));
    QVERIFY(worker.runOnce());
    QCOMPARE(m_proxy.log.events().size(), calls);
    QCOMPARE(worker.log.events(), RecordingWorker::fullRun());
}

QTEST_GUILESS_MAIN(tst_ThreadNameProxy)
#include "tst_threadnameproxy.moc"
