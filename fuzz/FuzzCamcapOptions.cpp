// camcap's command line: arguments are the input split at NUL bytes. Parsing either yields
// options or a usage error, never a crash or an exception.
#include "Options.h"

#include <QString>
#include <QStringList>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4096)
        return 0;
    QStringList arguments{QStringLiteral("camcap")};
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    for (const QByteArray& argument : bytes.split('\0'))
        arguments << QString::fromUtf8(argument);
    QString error;
    parseOptions(arguments, &error);
    return 0;
}
