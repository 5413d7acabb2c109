#pragma once
// The files a recording writes: created without ever replacing another file, written in
// whole, and cut back to their last complete piece when the disk is full.

#include <QString>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "UniqueFd.h"

namespace outputfile {

enum class Taken {
    Refuse,   // a name in use is an error
    Replace,  // the file under the name is removed first (--overwrite)
    Rename,   // "-1", "-2", ... go before the extension until a name is free
};

struct Created {
    UniqueFd fd;
    QString path;
    bool regular = true;  // false: a character device such as /dev/null, written as is
};

// Creates `name` exclusively (O_EXCL: neither an earlier file nor a link planted under the
// name is written through). A character device is opened for writing instead.
std::optional<Created> create(const QString& name, Taken taken, QString* error);

// Called when a write finds the disk full; true when it made room and the write may retry.
using MakeRoom = std::function<bool()>;

// Writes all of `data`, retrying interrupted and short writes, and a full disk as long as
// `makeRoom` frees space. 0, or the errno of the failure.
int writeAll(int fd, const uint8_t* data, size_t size, const MakeRoom& makeRoom);

inline bool isDiskFull(int error) { return error == ENOSPC || error == EDQUOT; }

// Cuts a regular file back to `length` bytes: what was complete before a failed write.
void cutBack(int fd, int64_t length);

} // namespace outputfile
