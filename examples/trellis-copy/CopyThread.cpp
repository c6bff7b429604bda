#include "CopyThread.h"

CopyThread::CopyThread() : TThreadedObject(QStringLiteral("trellis-copy")) { }

void CopyThread::Initialize() { }

void CopyThread::Finalize() { }
