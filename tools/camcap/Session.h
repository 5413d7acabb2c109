#pragma once
// One run of camcap: drives the element as the host does (initialize, start, format,
// play, stop), records the pin's output and reports progress and a summary. A camera that
// is lost ends the run, or with --reconnect is waited for and run again from initialize.

#include <QJsonArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <memory>

#include "EventLog.h"
#include "MediaFormat.h"
#include "Options.h"
#include "UniqueFd.h"

class IMediaElement;
class Recorder;
class ElementLog;
class CameraNode;
class FileSeries;
class QSocketNotifier;

class Session {
public:
    Session(IMediaElement* element, const Options& options);
    ~Session();

    // Runs to completion inside the Qt event loop; returns the exit code.
    int run();

    // Called when the process ends without run() returning (the element quit).
    void reportUnexpectedExit();

private:
    int setUp();
    QJsonArray formatList(const QList<MediaFormat>& formats) const;
    int listFormats(const QList<MediaFormat>& formats);
    int chooseFormat(const QList<MediaFormat>& formats);
    int applyFormat();
    int openOutput();
    int play();
    int classifyPlayFailure();
    void arm();
    void watch();
    void loseCamera(const QString& why);
    void tryComingBack();
    void onRecorderDone();
    void printProgress(bool final);
    void printSummary(int code);
    void fail(int code, const QString& why);
    void finish(int code, const QString& why);
    QString outputName() const;

    IMediaElement* m_element;
    Options m_options;
    EventLog m_events;
    QObject m_context;  // receives what the recorder and the signal handler post
    int m_codec = -1;            // codec asked of the element
    int m_deliveredCodec = -1;   // what the element will deliver, after negotiation
    int m_captureCodec = -1;     // what it captures from the camera
    QString m_delivered;
    QJsonArray m_formats;
    std::unique_ptr<CameraNode> m_node;
    std::unique_ptr<FileSeries> m_files;
    std::unique_ptr<Recorder> m_recorder;
    std::unique_ptr<ElementLog> m_log;
    QTimer m_watchTimer;
    QTimer m_progressTimer;
    QTimer m_durationTimer;
    UniqueFd m_signalRead;
    UniqueFd m_signalWrite;
    std::unique_ptr<QSocketNotifier> m_signalNotifier;
    int64_t m_playUs = 0;   // when the element last began to play
    int64_t m_stopUs = 0;   // when the recording was told to end
    // A lost camera being waited for (--reconnect), and every gap so far.
    bool m_waiting = false;
    int64_t m_lostUs = 0;
    QJsonArray m_gaps;
    QString m_stopReason;
    bool m_finished = false;
};
