#include "ContainerModule.h"
#include "FrameSink.h"
#include "RawWriter.h"

std::unique_ptr<FrameSink> openSink(outputfile::Created file, const StreamInfo& info, QString* error)
{
    if (info.container == QLatin1String("raw"))
        return std::make_unique<RawWriter>(file.fd.release());
    const auto open = reinterpret_cast<decltype(&camcap_open_container)>(
        containerModuleSymbol("camcap_open_container", error));
    if (!open)
        return nullptr;
    return std::unique_ptr<FrameSink>(open(file.fd.release(), file.path, info, error));
}
