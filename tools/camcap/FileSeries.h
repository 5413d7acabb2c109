#pragma once
// The files of one recording: one file, or segments cut at key frames on a clock that
// starts with the first frame, and a new file whenever the camera was lost and came back.
// Names come from the output pattern and never replace a file; a file that got no frame
// is removed; retention makes room before each new file and when the disk is full.

#include <QStringList>
#include <atomic>
#include <memory>
#include <optional>

#include "FrameSink.h"
#include "NamePattern.h"
#include "Retention.h"

class EventLog;

class FileSeries : public FrameSink {
public:
    struct Settings {
        QString pattern;  // --output; "-" is standard output
        double segmentSeconds = 0;  // 0: no segments
        StreamInfo info;
        bool overwrite = false;
        long long keepFreeBytes = 0;
        int maxFiles = 0;
    };
    FileSeries(const Settings& settings, EventLog& events);
    ~FileSeries() override;

    // Creates the first file, so an unwritable or taken name shows before recording.
    bool open(QString* error);
    // The size the camera delivers, once known; files begun after this call declare it.
    void setFrameSize(int width, int height);
    bool write(const Frame& frame) override;
    // Closes the current file.
    bool finish() override;
    // The camera was lost: the current file ends; the next key frame opens a new one.
    void breakFile();

    QString current() const { return m_path; }
    QStringList files() const { return m_files; }    // each file that holds a frame
    QStringList removed() const { return m_removed; }  // by retention

private:
    bool openNext(QString* error);
    bool startWriter(QString* error);
    bool closeCurrent();
    bool makeRoom();

    Settings m_settings;
    EventLog& m_events;
    NamePattern m_names;
    Retention m_retention;
    int64_t m_intervalUs;
    // A file's writer is set up with its first frame, when the size is surely known.
    std::optional<outputfile::Created> m_file;
    std::unique_ptr<FrameSink> m_current;
    std::atomic<int> m_width{0}, m_height{0};
    QString m_path;
    bool m_regular = false;
    long long m_frames = 0;  // in the current file
    uint64_t m_bytes = 0;
    int m_index = 0;          // of the next file
    int64_t m_firstUs = -1;   // the recording's first frame: segments count from it
    int64_t m_boundary = 1;   // the next segment starts at m_firstUs + m_boundary * interval
    QStringList m_made;       // this run's files, including those without frames
    QStringList m_files;
    QStringList m_removed;
};
