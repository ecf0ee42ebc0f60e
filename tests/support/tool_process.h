#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/temporary_folder.h"

namespace kvffmpeg::test {

/// Far beyond what anything takes; what is still running then hangs.
constexpr std::chrono::seconds patience(120);

/// Asks until `condition` holds; false when patience is at an end.
template <typename Condition>
bool waitUntil(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

using Arguments = std::vector<std::string>;

/// What the tool wrote, and how it ended: its exit code, or minus the signal that killed it.
struct Result {
    int exitCode = 0;
    std::string out;
    std::string err;
};

/// The command-line tool as a child process, killed if it is still running when the object goes. Its output
/// goes to files, so that it never waits for a reader. It ignores no signal, whatever the tests' runner does.
class ToolProcess {
public:
    /// `redirections`, from a descriptor of this process to one of the tool, may send its input and output
    /// elsewhere; after them, `closed` are closed in the tool.
    explicit ToolProcess(const Arguments& arguments,
                         const std::vector<std::pair<int, int>>& redirections = {},
                         const std::vector<int>& closed = {});
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    void send(int signal) const;
    /// Waits for its end. @throws std::runtime_error when it hangs.
    Result wait();

private:
    TemporaryFolder folder_;
    pid_t pid_ = 0;
};

/// Runs the tool to its end.
Result run(const Arguments& arguments);

/// Owns a file descriptor.
class Descriptor {
public:
    /// @throws std::runtime_error for a negative value.
    explicit Descriptor(int value);
    ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return value_; }

private:
    int value_;
};

/// A named pipe with a writer, so that readers of what was written wait for more.
class Fifo {
public:
    explicit Fifo(const std::string& path);

    const std::string& path() const { return path_; }
    /// At most what the pipe takes at once, 64 KiB.
    void write(const std::vector<std::uint8_t>& bytes) const;
    /// True when all that was written has been read.
    bool isDrained() const;

private:
    std::string path_;
    Descriptor end_;
};

}  // namespace kvffmpeg::test
