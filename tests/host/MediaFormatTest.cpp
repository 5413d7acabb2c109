#include <gtest/gtest.h>

#include <QSequentialIterable>
#include <QVariant>
#include <thread>
#include <vector>

#include "Formats.h"
#include "MediaFormat.h"

namespace {

TEST(MediaFormat, DefaultsAreUnsetEverywhere)
{
    const MediaFormat f;
    const int32_t fields[] = {f.majorType, f.minorType, f.codecType, f.rawType,
                              f.bitRate, f.frameRateNum, f.frameRateDen, f.width,
                              f.height, f.sampleRate, f.channels, f.bitsPerSample};
    for (int32_t value : fields)
        EXPECT_EQ(value, -1);
    EXPECT_FALSE(f.interlaced);
    EXPECT_EQ(sizeof(MediaFormat), 12 * sizeof(int32_t) + 4);  // twelve ints, a bool, padding
}

TEST(MediaFormat, RegisteredUnderTheHostsNames)
{
    registerMediaFormatMetaTypes();
    EXPECT_EQ(QMetaType::type("MediaFormat"), qMetaTypeId<MediaFormat>());
    EXPECT_EQ(QMetaType::type("QList<MediaFormat>"), qMetaTypeId<QList<MediaFormat>>());
}

TEST(MediaFormat, ListWalksAsSequenceWithoutKnowingTheElementType)
{
    registerMediaFormatMetaTypes();
    const QList<MediaFormat> list{videoFormat(9, 1920, 1080), videoFormat(11, 640, 480)};
    const QVariant v = QVariant::fromValue(list);
    ASSERT_TRUE(v.canConvert<QVariantList>());
    const QSequentialIterable iterable = v.value<QSequentialIterable>();
    ASSERT_EQ(iterable.size(), 2);
    EXPECT_EQ(iterable.at(1).value<MediaFormat>(), list[1]);
}

TEST(MediaFormat, ExtractionFromForeignVariantGivesDefault)
{
    const QVariant values[] = {QVariant(), QVariant(42), QVariant(QStringLiteral("h264")),
                               QVariant::fromValue(QList<MediaFormat>{videoFormat(6, 1, 1)})};
    for (const QVariant& v : values)
        EXPECT_EQ(v.value<MediaFormat>(), MediaFormat()) << v.typeName();
    EXPECT_EQ(QVariant::fromValue(videoFormat(6, 640, 480)).value<MediaFormat>(), videoFormat(6, 640, 480));
}

TEST(MediaFormat, ConcurrentFirstRegistrationAgrees)
{
    std::vector<std::thread> threads;
    std::vector<int> ids(8);
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&ids, i] {
            registerMediaFormatMetaTypes();
            ids[size_t(i)] = QMetaType::type("QList<MediaFormat>");
        });
    for (auto& t : threads)
        t.join();
    for (int id : ids)
        EXPECT_EQ(id, qMetaTypeId<QList<MediaFormat>>());
}

} // namespace
