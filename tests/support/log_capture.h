#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "logger/logger.h"

namespace kvffmpeg::test {

/// Collects what the library logs, at every level, from construction to destruction; then restores the
/// logger's defaults. One at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// The texts of the messages of one level so far, in order.
    std::vector<std::string> messages(int level) const;
    /// All messages so far: level and text, in order.
    std::vector<std::pair<int, std::string>> messages() const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::pair<int, std::string>> messages_;
};

}  // namespace kvffmpeg::test
