#include "console.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "errors.h"
#include "interruption.h"
#include "progress_text.h"

namespace kvffmpeg::tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto outputFailure = "Could not write to standard output";

std::optional<Clock::time_point> progressShownAt;  // this and the next only the main thread touches
bool progressIsHidden = false;
std::mutex terminal;  // guards `progressIsVisible`, and keeps what is written in whole lines
bool progressIsVisible = false;

bool isTrailByte(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

/// The length that the first byte announces, 0 when no character begins with it.
std::size_t announcedLength(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead < 0xc2) return 0;
    if (lead < 0xe0) return 2;
    if (lead < 0xf0) return 3;
    return lead < 0xf5 ? 4 : 0;
}

/// False for what is too long for its value, for surrogates and for values beyond U+10FFFF.
bool isSecondByteInRange(unsigned char lead, unsigned char second) {
    switch (lead) {
        case 0xe0:
            return second >= 0xa0;
        case 0xed:
            return second < 0xa0;
        case 0xf0:
            return second >= 0x90;
        case 0xf4:
            return second < 0x90;
        default:
            return true;
    }
}

/// The length of the character that `text` begins with, 0 when that is not UTF-8.
std::size_t characterLength(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    const std::size_t length = announcedLength(lead);
    if (length == 0 || length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if (!isTrailByte(text[i])) return 0;
    }
    if (length > 1 && !isSecondByteInRange(lead, static_cast<unsigned char>(text[1]))) return 0;
    return length;
}

/// C0, DEL and C1: the latter steer terminals too.
bool isControl(std::string_view character) {
    const auto first = static_cast<unsigned char>(character[0]);
    if (character.size() == 1) return first < 0x20 || first == 0x7f;
    return first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0;
}

/// With `terminal` locked.
void eraseProgress() {
    if (progressIsVisible) std::cerr << "\r\033[K" << std::flush;
    progressIsVisible = false;
}

/// Whether standard output is a pipe or the like that has no reader.
bool readerIsGone() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) > 0 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = characterLength(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        if (character == "\n" || character == "\r" || character == "\t") {
            result += ' ';
        } else if (length == 0 || isControl(character)) {
            result += "\xEF\xBF\xBD";
        } else {
            result += character;
        }
        text.remove_prefix(character.size());
    }
    return result;
}

std::string clockText(Timestamp time) {
    const std::int64_t milliseconds = time.rescale(Timebase{1, 1000}).value();
    // Unsigned, because the smallest integer has no positive counterpart.
    const std::uint64_t rest = milliseconds < 0 ? 0 - static_cast<std::uint64_t>(milliseconds)
                                                : static_cast<std::uint64_t>(milliseconds);
    std::ostringstream text;
    text << (milliseconds < 0 ? "-" : "") << std::setfill('0') << std::setw(2) << rest / 3600000 << ':'
         << std::setw(2) << rest / 60000 % 60 << ':' << std::setw(2) << rest / 1000 % 60 << '.'
         << std::setw(3) << rest % 1000;
    return text.str();
}

void report(const std::string& text) {
    const std::lock_guard<std::mutex> lock(terminal);
    eraseProgress();
    std::cerr << printable(text) + "\n" << std::flush;
}

void hideProgress() {
    progressIsHidden = true;
}

bool progressIsDue() {
    static const bool isTerminal = isatty(STDERR_FILENO) != 0;
    constexpr std::chrono::milliseconds interval(100);
    return isTerminal && !progressIsHidden &&
           (!progressShownAt || Clock::now() - *progressShownAt >= interval);
}

void showProgress(const std::string& text) {
    const std::lock_guard<std::mutex> lock(terminal);
    std::cerr << "\r" + printable(text) + "\033[K" << std::flush;
    progressShownAt = Clock::now();
    progressIsVisible = true;
}

void clearProgress() {
    const std::lock_guard<std::mutex> lock(terminal);
    eraseProgress();
}

Progress::Progress(std::string unit) : unit_(std::move(unit)), start_(Clock::now()) {}

void Progress::show(const std::string& what, double done, const std::optional<double>& share) const {
    const std::chrono::duration<double> elapsed = Clock::now() - start_;
    showProgress(progressText({what, done, unit_, elapsed.count(), share}));
}

void occupyStandardStreams() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) != -1) continue;
        // Takes the lowest free number. The wrong direction makes every use of it fail.
        const int opened = open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        if (opened != descriptor) throw std::runtime_error("Could not open /dev/null");
    }
}

void flushOutput() {
    if (std::cout.flush()) return;
    if (readerIsGone()) throw BrokenPipe();
    throw std::runtime_error(outputFailure);
}

void writeOutput(const void* bytes, std::size_t count) {
    const auto* next = static_cast<const unsigned char*>(bytes);
    while (count > 0) {
        throwIfInterrupted();
        const ssize_t written = write(STDOUT_FILENO, next, count);
        if (written >= 0) {
            next += written;
            count -= static_cast<std::size_t>(written);
        } else if (errno == EPIPE) {
            throw BrokenPipe();
        } else if (errno == EAGAIN) {  // whoever started this may have made the pipe so
            pollfd output{STDOUT_FILENO, POLLOUT, 0};
            poll(&output, 1, -1);
        } else if (errno != EINTR) {
            throw std::runtime_error(outputFailure);
        }
    }
}

void requireNoTerminal() {
    if (isatty(STDOUT_FILENO) != 0) {
        throw UsageError("--output -: standard output is a terminal: expected a file or a pipe behind it");
    }
}

}  // namespace kvffmpeg::tool
