#include "support/log_capture.h"

namespace kvffmpeg::test {

LogCapture::LogCapture() {
    logger::setThreshold(static_cast<logger::Level>(5));
    logger::setSink([this](logger::Level level, const std::string& text) {
        const std::lock_guard<std::mutex> lock(mutex_);
        messages_.emplace_back(static_cast<int>(level), text);
    });
}

LogCapture::~LogCapture() {
    logger::setSink({});
    logger::setThreshold(logger::Level::warning);
}

std::vector<std::string> LogCapture::messages(int level) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> texts;
    for (const auto& [messageLevel, text] : messages_) {
        if (messageLevel == level) texts.push_back(text);
    }
    return texts;
}

std::vector<std::pair<int, std::string>> LogCapture::messages() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

void LogCapture::clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    messages_.clear();
}

}  // namespace kvffmpeg::test
