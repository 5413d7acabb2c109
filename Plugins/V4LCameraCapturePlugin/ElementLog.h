#pragma once
// Every diagnostic is one host log call whose format starts "%s:%d LEVEL: " with the
// enclosing function's name and the source line.

#include "Logger.h"

#define ELEMENT_LOG(level, format, ...) \
    Logger::logger_printf(level, format, __func__, __LINE__, ##__VA_ARGS__)

enum : uint32_t {
    FOURCC_H264 = 0x34363248,  // "H264"
    FOURCC_HEVC = 0x43564548,  // "HEVC"
    FOURCC_MJPG = 0x47504a4d,  // "MJPG"
    FOURCC_YUYV = 0x56595559,  // "YUYV"
    FOURCC_NV12 = 0x3231564e,  // "NV12"
};
