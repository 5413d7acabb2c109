#pragma once
// A descriptor open on a camera's usbfs node (/dev/bus/usb/BBB/DDD): records resets.
//
// A reset re-enumerates the device as the kernel does: descriptors open on the camera's
// video nodes die (ENODEV) and an unplugged camera comes back, unless the model says the
// reset does not help.

#include "DeviceState.h"
#include "Handle.h"
#include "Recorder.h"

#include <memory>

namespace simcam {

class UsbHandle final : public Handle {
public:
    UsbHandle(std::string path, std::shared_ptr<CameraState> camera, Recorder& recorder)
        : path_(std::move(path)), camera_(std::move(camera)), recorder_(recorder)
    {
    }

    const std::string& path() const override { return path_; }
    int ioctl(unsigned long request, void* arg) override;
    bool stale() const override { return camera_->retired.load(); }

private:
    const std::string path_;
    const std::shared_ptr<CameraState> camera_;
    Recorder& recorder_;
};

} // namespace simcam
