#pragma once
// Command line of camcap.

#include <QString>
#include <QStringList>
#include <optional>

enum ExitCode {
    EXIT_OK = 0,
    EXIT_USAGE = 2,
    EXIT_NO_PLUGIN = 3,
    EXIT_NO_CAMERA = 4,
    EXIT_FORMAT_REFUSED = 5,
    EXIT_OUTPUT = 6,
    EXIT_SETUP_FAILED = 7,
    EXIT_CAMERA_LOST = 8,
    EXIT_DISK_FULL = 9,
    EXIT_CHECK_FAILED = 10,  // --check: the element cannot record from the camera here
};

struct Options {
    QString pluginPath;
    bool listFormats = false;
    bool check = false;        // report whether the element can record here, then exit
    double checkSeconds = 2;   // length of the check's recording
    QString format = QStringLiteral("h264");  // h264 | mjpeg | hevc | yuyv | nv12
    bool formatGiven = false;
    int width = 0;                            // 0: the camera's first size for the format
    int height = 0;
    double durationSeconds = 0;  // 0: until --frames, or until interrupted
    long long frames = 0;
    QString output;      // empty: discard; "-": standard output
    bool simulate = false;
    QString simulateModel;
    int forceIdrEvery = 0;  // frames between forced key frames (compressed cameras)
    int verbosity = 1;      // logger threshold
    bool progress = true;
    double stallTimeout = 5;  // seconds without a frame before giving up; 0: never
    QString container;        // "raw", "mp4" or "mkv"; chosen from the output's extension
    double segmentSeconds = 0;  // 0: one file
    bool json = false;          // format list and summary as one JSON object on stdout
    bool events = false;        // one JSON line per event on stdout, as it happens
    bool overwrite = false;     // a single output file that exists is replaced
    long long keepFreeBytes = 0;  // retention: free space to keep on the output's filesystem
    int maxFiles = 0;             // retention: files of the output pattern to keep at most
    bool reconnect = false;       // wait for a lost camera and record on in a new file
    double reconnectSeconds = 0;  // how long to wait for it; 0: for ever
    bool retention() const { return keepFreeBytes > 0 || maxFiles > 0; }
};

// Parses argv; on a usage error sets `error` to one line and returns nothing. `--simulate` takes an
// optional model (the next argument when it does not start with '-').
std::optional<Options> parseOptions(const QStringList& arguments, QString* error);
QString usageText();
