#include "UsbHandle.h"

#include "HandleFactory.h"

#include <cerrno>
#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>

namespace simcam {

std::shared_ptr<Handle> makeUsbHandle(std::string path, std::shared_ptr<CameraState> camera,
                                      Recorder& recorder)
{
    return std::make_shared<UsbHandle>(std::move(path), std::move(camera), recorder);
}

int UsbHandle::ioctl(unsigned long request, void*)
{
    if (camera_->retired.load())
        return ENODEV;
    if (request != USBDEVFS_RESET)
        return ENOTTY;
    recorder_.reset(path_);
    if (camera_->config.resetErrno)
        return camera_->config.resetErrno;
    if (!camera_->unplugged() || camera_->config.resetReplugs)
        camera_->reenumerate();
    return 0;
}

} // namespace simcam
