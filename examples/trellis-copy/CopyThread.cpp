#include "CopyThread.h"

CopyThread::CopyThread() : TThreadedObject(QStringLiteral("trellis-copy")) { }

CopyThread::~CopyThread()
{
    Stop();
    wait();
}

void CopyThread::Initialize() { }

void CopyThread::Finalize() { }
