#pragma once
// camcap --check: whether the element can record from the camera on this system, and why
// not. Six lines a person reads in ten seconds (nodes, formats, capture memory, controls and
// USB, a short recording through the element, the verdict), each a verdict with the reason
// and the fix when negative; with --json one object with a field per line. Read-only
// towards the system: no reset, nothing written outside a temporary directory.

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include "CheckProbes.h"
#include "Options.h"

class CameraCheck {
public:
    // `self` is this camcap, run again for the recording through the element.
    CameraCheck(const Options& options, const QString& self);
    // Prints the report; EXIT_OK when the element can record, else EXIT_CHECK_FAILED.
    int run();

    enum class Verdict { Ok, Warn, No, Skipped };
    struct Line {
        QString key;
        Verdict verdict = Verdict::Ok;
        QString text;       // the verdict's one line
        QString fix;        // what would make a negative line positive
        QStringList details;
        QJsonObject json;
    };

private:
    Line checkNodes();
    Line checkFormats();
    Line checkMemory();
    Line checkControls();
    Line checkRecording();
    QString verdictText(const QList<Line>& lines) const;

    Options m_options;
    QString m_self;
    QList<check::NodeInfo> m_nodes;
    const check::NodeInfo* m_node = nullptr;  // the one the element opens, when it can capture
    QList<check::FormatInfo> m_formats;
    // What the recording asks for and what the camera then delivers.
    int m_captureCodec = -1;
    uint32_t m_fourcc = 0;
    int m_width = 0, m_height = 0;
    QString m_delivered;         // "h264", "h264 (encoded from nv12)"
    QString m_expectedSource;    // what the memory check says the element uses
    QString m_usedSource;        // what it used in the recording
    QString m_sourceDevice;      // e.g. "/dev/dri/card0"
    double m_rate = 0;
};
