// camcap --check against simulated cameras that fail each way a board does.

#include <gtest/gtest.h>

#include <QJsonArray>

#include "ToolRun.h"

namespace {

struct CheckCase : Row {
    const char* model;
    const char* lines;    // "key=verdict ..." for every line the report must have (a pattern)
    const char* verdict;  // a piece of the verdict line
    const char* memorySource = nullptr;  // MEDIAMEM_SOURCE
};

class Check : public testing::TestWithParam<CheckCase> {};

TEST_P(Check, SaysLineByLineWhetherTheElementCanRecordAndWhyNot)
{
    const CheckCase& c = GetParam();
    RunOptions options;
    if (c.memorySource)
        options.env.insert("MEDIAMEM_SOURCE", c.memorySource);
    const ToolRun run = camcap({"--simulate", c.model, "--check", "--json"}, options);
    const QJsonObject report = run.json();
    const QString verdict = report.value("verdict").toObject().value("text").toString();
    const bool ok = verdict.startsWith("ok: ");
    EXPECT_EQ(run.exitCode, ok ? 0 : 10) << qPrintable(run.err);
    EXPECT_EQ(report.value("verdict").toObject().value("ok").toBool(), ok);
    EXPECT_TRUE(verdict.contains(c.verdict)) << qPrintable(verdict);
    QStringList seen;
    for (const char* key : {"nodes", "formats", "memory", "controls", "recording"}) {
        if (report.contains(key))
            seen << key + QStringLiteral("=") + report.value(key).toObject().value("verdict").toString();
    }
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^%1$").arg(c.lines)).match(seen.join(' ')).hasMatch())
        << qPrintable(seen.join(' '));
    // A negative line says what would fix it.
    for (const QString& key : report.keys()) {
        const QJsonObject line = report.value(key).toObject();
        if (line.value("verdict") == "no" || line.value("verdict") == "warn") {
            EXPECT_FALSE(line.value("fix").toString().isEmpty()) << qPrintable(key);
        }
    }
    if (!ok || !kContainers)
        return;
    // The recording went through the element and decodes whole.
    const QJsonObject recording = report.value("recording").toObject();
    EXPECT_GE(recording.value("frames").toDouble(), 30);
    EXPECT_EQ(recording.value("decoded_frames").toDouble(), recording.value("frames").toDouble());
    EXPECT_EQ(recording.value("memory").toString(), "memfd");
}

INSTANTIATE_TEST_SUITE_P(
    Boards, Check,
    testing::Values(
        CheckCase{{"H264Camera"}, "h264", "nodes=ok formats=ok memory=ok controls=ok recording=ok",
                  "ok: /dev/video0 (uvcvideo, 1d6b:0102) records h264 1920x1080 at 30 fps from memfd"},
        // Slow machines (a sanitizer, an emulator) encode below the camera's rate: a warning.
        CheckCase{{"RawCamera"}, "yuyv,size=640x480", "nodes=ok formats=ok memory=ok controls=ok recording=(ok|warn)",
                  "records h264 (encoded from yuyv) 640x480 at 30 fps"},
        CheckCase{{"NoDmaBufSource"}, "h264,nomemfd", "nodes=ok formats=ok memory=no controls=ok recording=no",
                  "no: the element takes memfd, which /dev/video0 refuses at VIDIOC_QBUF (EINVAL"},
        CheckCase{{"ForcedSourceMissing"}, "h264", "nodes=ok formats=ok memory=no controls=ok recording=no",
                  "no: MEDIAMEM_SOURCE=dma-heap is not available here", "dma-heap"},
        CheckCase{{"LowestNodeNotACamera"}, "h264,cameras=2,video0.nocap", "nodes=no",
                  "no: /dev/video0 is not a capture device (uvcvideo); the camera is /dev/video2, which the element "
                  "does not open"},
        CheckCase{{"NodeBusy"}, "h264,open=EBUSY", "nodes=no", "no: /dev/video0 cannot be opened (EBUSY"},
        CheckCase{{"NoFormatTheElementTakes"}, "h264,formats=RGB3", "nodes=ok formats=no",
                  "offers none of the formats the element takes"},
        CheckCase{{"NoKeyFrameControl"}, "h264,nokeyctl", "nodes=ok formats=ok memory=ok controls=warn recording=ok",
                  "from memfd; but: no force-key-frame control"},
        CheckCase{{"ResetNotPermitted"}, "h264,usbopen=EACCES",
                  "nodes=ok formats=ok memory=ok controls=warn recording=ok", "but: USB reset not permitted"},
        CheckCase{{"DeliversNothing"}, "h264,stall", "nodes=ok formats=ok memory=ok controls=ok recording=no",
                  "no: /dev/video0 delivered no frame in "}),
    RowName());

// The text report: a line per check, the details under it, the verdict last, as JSON has it.
TEST(Check, TextReportIsTheJsonReportForAPerson)
{
    const QString model = "h264,nokeyctl,size=640x480";
    const ToolRun text = camcap({"--simulate", model, "--check", "--check-seconds", "1"});
    const ToolRun json = camcap({"--simulate", model, "--check", "--check-seconds", "1", "--json"});
    ASSERT_EQ(text.exitCode, 0) << qPrintable(text.err);
    const QStringList lines = QString::fromUtf8(text.out).split('\n', Qt::SkipEmptyParts);
    QStringList keys;
    for (const QString& l : lines) {
        if (!l.startsWith(' '))
            keys << l.section(' ', 0, 0);
    }
    EXPECT_EQ(keys.join(' '), "nodes formats memory controls recording verdict");
    EXPECT_EQ(lines.last().mid(11), json.json().value("verdict").toObject().value("text").toString());
    EXPECT_TRUE(lines.filter(QRegularExpression("^controls +warn +no force-key-frame control$")).size() == 1)
        << text.out.constData();
    EXPECT_EQ(lines.filter(QRegularExpression("^ +fix: ")).size(), 1);
}

} // namespace
