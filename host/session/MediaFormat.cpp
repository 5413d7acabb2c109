#include "MediaFormat.h"

void registerMediaFormatMetaTypes()
{
    // Function-local static: initialised once, thread-safe.
    static const bool registered = [] {
        qRegisterMetaType<MediaFormat>("MediaFormat");
        // Qt registers the sequential-iterable converter together with the list type.
        qRegisterMetaType<QList<MediaFormat>>("QList<MediaFormat>");
        return true;
    }();
    (void)registered;
}
