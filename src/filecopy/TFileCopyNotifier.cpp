#include "TFileCopyNotifier.h"

#include "TFileCopyTask.h"

TFileCopyNotifier::TFileCopyNotifier(TFileCopyTask *task) : QObject(task) { }
