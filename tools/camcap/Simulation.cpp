#include "Simulation.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char kSimulatedMark[] = "CAMCAP_SIMULATED";

// A sanitizer runtime must stay first among preloaded libraries.
int findSanitizerRuntime(dl_phdr_info* info, size_t, void* out)
{
    const char* name = info->dlpi_name;
    if (name && (std::strstr(name, "/libasan.so") || std::strstr(name, "/libtsan.so"))) {
        *static_cast<std::string*>(out) = name;
        return 1;
    }
    return 0;
}

int findSimulation(dl_phdr_info* info, size_t, void* out)
{
    if (info->dlpi_name && std::strstr(info->dlpi_name, "/libsimcam.so")) {
        *static_cast<bool*>(out) = true;
        return 1;
    }
    return 0;
}

QString simulationLibrary(const char* argv0)
{
    const QString exeDir = QFileInfo(QFile::decodeName(argv0)).absolutePath();
    return QDir(exeDir).absoluteFilePath(QStringLiteral("../lib/libsimcam.so"));
}

} // namespace

bool enterSimulation(int argc, char** argv, const QString& model, QString* error)
{
    (void)argc;
    // Already preloaded: by our own re-execution, or by whoever started us (an emulator
    // that cannot re-execute, for instance), who then also set the model.
    bool loaded = false;
    dl_iterate_phdr(findSimulation, &loaded);
    if (loaded) {
        if (!qEnvironmentVariableIsSet("SIMCAM_MODEL"))
            setenv("SIMCAM_MODEL", model.toUtf8().constData(), 1);
        return true;
    }
    if (qEnvironmentVariableIsSet(kSimulatedMark)) {
        *error = QStringLiteral("the simulated camera library did not load");
        return false;
    }
    const QString library = simulationLibrary(argv[0]);
    if (!QFileInfo::exists(library)) {
        *error = QStringLiteral("simulated camera library not found: %1").arg(library);
        return false;
    }
    std::string preload;
    dl_iterate_phdr(findSanitizerRuntime, &preload);
    if (!preload.empty())
        preload += ':';
    preload += QFile::encodeName(library).toStdString();
    if (const char* existing = std::getenv("LD_PRELOAD"); existing && *existing)
        preload += std::string(":") + existing;

    setenv("LD_PRELOAD", preload.c_str(), 1);
    setenv("SIMCAM_MODEL", model.toUtf8().constData(), 1);
    setenv(kSimulatedMark, "1", 1);
    execv("/proc/self/exe", argv);
    *error = QStringLiteral("cannot re-execute with the simulated camera: %1").arg(QString::fromLocal8Bit(strerror(errno)));
    return false;
}
