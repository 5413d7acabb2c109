#include <gtest/gtest.h>

#include <QSequentialIterable>
#include <QVariant>
#include <thread>
#include <vector>

#include "Formats.h"
#include "MediaFormat.h"

namespace {

// Registration from many threads at once agrees on one id under the host's names, and the
// list walks as a sequence without the reader knowing its element type.
TEST(MediaFormat, ConcurrentRegistrationGivesAListTheHostCanWalk)
{
    std::vector<std::thread> threads;
    std::vector<int> ids(8);
    for (size_t i = 0; i < ids.size(); ++i)
        threads.emplace_back([&ids, i] {
            registerMediaFormatMetaTypes();
            ids[i] = QMetaType::type("QList<MediaFormat>");
        });
    for (auto& t : threads)
        t.join();
    for (int id : ids)
        EXPECT_EQ(id, qMetaTypeId<QList<MediaFormat>>());
    EXPECT_EQ(QMetaType::type("MediaFormat"), qMetaTypeId<MediaFormat>());

    const QList<MediaFormat> list{videoFormat(9, 1920, 1080), videoFormat(11, 640, 480)};
    const QVariant v = QVariant::fromValue(list);
    ASSERT_TRUE(v.canConvert<QVariantList>());
    const QSequentialIterable iterable = v.value<QSequentialIterable>();
    ASSERT_EQ(iterable.size(), 2);
    EXPECT_EQ(iterable.at(1).value<MediaFormat>(), list[1]);
}

} // namespace
