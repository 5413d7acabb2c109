#include "simcam/SimCamera.h"

#include <cstdio>
#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>

namespace simcam {

std::string ioctlName(unsigned long request)
{
    struct Name {
        unsigned long request;
        const char* name;
    };
#define NAME(r) {r, #r}
    static const Name names[] = {
        NAME(VIDIOC_QUERYCAP),      NAME(VIDIOC_ENUM_FMT),    NAME(VIDIOC_ENUM_FRAMESIZES),
        NAME(VIDIOC_ENUM_FRAMEINTERVALS), NAME(VIDIOC_G_FMT), NAME(VIDIOC_S_FMT),
        NAME(VIDIOC_TRY_FMT),       NAME(VIDIOC_G_PARM),      NAME(VIDIOC_S_PARM),
        NAME(VIDIOC_REQBUFS),       NAME(VIDIOC_QUERYBUF),    NAME(VIDIOC_QBUF),
        NAME(VIDIOC_DQBUF),         NAME(VIDIOC_STREAMON),    NAME(VIDIOC_STREAMOFF),
        NAME(VIDIOC_QUERYCTRL),     NAME(VIDIOC_G_CTRL),      NAME(VIDIOC_S_CTRL),
        NAME(VIDIOC_ENUMINPUT),     NAME(VIDIOC_G_INPUT),     NAME(VIDIOC_S_INPUT),
        NAME(UVCIOC_CTRL_QUERY),    NAME(USBDEVFS_RESET),
    };
#undef NAME
    for (const Name& n : names)
        if (n.request == request)
            return n.name;
    char hex[24];
    std::snprintf(hex, sizeof hex, "0x%lx", request);
    return hex;
}

} // namespace simcam
