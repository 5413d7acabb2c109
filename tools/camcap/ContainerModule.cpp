#include "ContainerModule.h"

#include <dlfcn.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>

void* containerModuleSymbol(const char* name, QString* error)
{
#ifdef CAMCAP_CONTAINERS
    struct Module {
        void* handle = nullptr;
        QString error;
    };
    static const Module module = [] {
        const QString path = QDir(QCoreApplication::applicationDirPath())
                                 .absoluteFilePath(QStringLiteral(CAMCAP_CONTAINERS_RELPATH));
        Module m;
        m.handle = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
        if (!m.handle)
            m.error = QStringLiteral("container support could not be loaded: %1").arg(QString::fromLocal8Bit(dlerror()));
        return m;
    }();
    *error = module.error;
    if (!module.handle)
        return nullptr;
    void* symbol = dlsym(module.handle, name);
    if (!symbol)
        *error = QStringLiteral("container support lacks %1").arg(QLatin1String(name));
    return symbol;
#else
    (void)name;
    *error = QStringLiteral("this camcap was built without container support (libavformat)");
    return nullptr;
#endif
}
