#ifndef TRELLIS_TRELLIS_H
#define TRELLIS_TRELLIS_H

// Every public class and function of the Trellis library.

#include <Trellis/AlignedFree.h>
#include <Trellis/TCommBuffer.h>
#include <Trellis/TFileCopyNotifier.h>
#include <Trellis/TFileCopyTask.h>
#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>
#include <Trellis/TLocalTime.h>
#include <Trellis/TQueue.h>
#include <Trellis/TThreadedObject.h>
#include <Trellis/ThreadNameProxy.h>

#endif // TRELLIS_TRELLIS_H
