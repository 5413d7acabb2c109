#pragma once
// Every diagnostic is one host log call whose format starts "%s:%d LEVEL: " with the
// enclosing function's name and the source line.

#include <cstring>

#include "Logger.h"

#define ELEMENT_LOG(level, format, ...) \
    Logger::logger_printf(level, format, __func__, __LINE__, ##__VA_ARGS__)

// The system's reason for a failure just logged, on a line of its own (err: an errno value).
#define ELEMENT_LOG_REASON(err) \
    Logger::logger_printf(0, "%s:%d ERROR: reason: %s\n", __func__, __LINE__, std::strerror(err))

// The same, for steps that log under their caller's name.
inline void logReason(const char* function, int line, int err)
{
    Logger::logger_printf(0, "%s:%d ERROR: reason: %s\n", function, line, std::strerror(err));
}
