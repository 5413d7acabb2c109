#pragma once
// camcap's own descriptor on the camera's capture node, beside the element's: for what the
// element has no call for (frame rates of the listed sizes, forcing a key frame) and for
// telling an unplugged camera from a silent one.

#include <QString>
#include <QStringList>
#include <cstdint>

#include "UniqueFd.h"

class CameraNode {
public:
    // Every /dev entry whose name starts "video" (any case; links and all), in the element's
    // order: by the number after "video" (none or not a number: 0; "video-1": -1).
    static QStringList videoNodes();
    // The node the element opens: the first of those.
    static QString elementNode();

    explicit CameraNode(const QString& path = elementNode());

    // The frame rates offered at a size, e.g. {"30", "15"} or {"5-30"}.
    QStringList frameRates(uint32_t fourcc, int width, int height) const;
    // V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME; the control is the camera's, so it reaches the
    // stream the element runs on its own descriptor.
    bool requestKeyFrame() const;
    // The device went away: our descriptor is dead or the node is no longer there.
    bool gone() const;
    // The node answers as a capture device (a camera that came back, for instance).
    bool canCapture() const;
    // Whether the node could be opened at all.
    bool opened() const { return m_fd.valid(); }
    // Asks the driver for a format as the element does: 0 when it takes it as asked (the
    // size may be adjusted), else the errno of the refusal, or EINVAL when it answers with
    // another pixel format.
    int setFormat(uint32_t fourcc, int width, int height) const;
    // The frame rate the camera is set to (VIDIOC_G_PARM); 0 when it does not say.
    double frameRate() const;
    // The size the camera is set to deliver; false when it does not say.
    bool currentSize(int* width, int* height) const;
    QString path() const { return m_path; }

private:
    QString m_path;
    UniqueFd m_fd;
};
