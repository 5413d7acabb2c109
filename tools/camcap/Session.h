#pragma once
// One run of camcap: drives the element as the host does (initialize, start, format,
// play, stop), records the pin's output and reports progress and a summary.

#include <QList>
#include <QString>
#include <cstdio>
#include <memory>

#include "MediaFormat.h"
#include "Options.h"

class IMediaElement;
class Recorder;
class LogCapture;

class Session {
public:
    Session(IMediaElement* element, const Options& options);
    ~Session();

    // Runs to completion inside the Qt event loop; returns the exit code.
    int run();

    // Called when the process ends without run() returning (the element quit).
    void reportUnexpectedExit();

private:
    int listFormats(const QList<MediaFormat>& formats);
    int chooseFormat(const QList<MediaFormat>& formats);
    int applyFormat();
    int openOutput();
    int classifyPlayFailure() const;
    void tick();
    void printProgress(bool final);
    void finish(int code);

    IMediaElement* m_element;
    Options m_options;
    int m_codec = -1;            // codec asked of the element
    QString m_delivered;         // what the element will deliver, after negotiation
    FILE* m_out = nullptr;
    bool m_ownsOut = false;
    std::unique_ptr<Recorder> m_recorder;
    std::unique_ptr<LogCapture> m_log;
    qint64 m_startMs = 0;
    long long m_nextIdrAt = 0;
    bool m_gotFrame = false;
    int m_exitCode = EXIT_OK;
    bool m_finished = false;
};
