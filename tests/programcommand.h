#ifndef TRELLIS_PROGRAMCOMMAND_H
#define TRELLIS_PROGRAMCOMMAND_H

#include <QString>
#include <QStringList>

// The command that starts \a program, a program of this build, from a test:
// the program itself, or, when the tests run under an emulator (a cross
// build), that emulator's command followed by the program. CTest hands the
// emulator's command to the tests as TRELLIS_TEST_EMULATOR, its words
// separated by ';'.
inline QStringList programCommand(const QString &program)
{
    QStringList command = QString::fromLocal8Bit(qgetenv("TRELLIS_TEST_EMULATOR"))
                                  .split(QLatin1Char(';'), Qt::SkipEmptyParts);
    command.append(program);
    return command;
}

#endif // TRELLIS_PROGRAMCOMMAND_H
