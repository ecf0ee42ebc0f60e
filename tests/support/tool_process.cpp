#include "support/tool_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "support/media.h"

extern char** environ;

namespace kvffmpeg::test {
namespace {

class FileActions {
public:
    FileActions() { posix_spawn_file_actions_init(&actions_); }
    ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    void write(int descriptor, const std::string& path) {
        posix_spawn_file_actions_addopen(&actions_, descriptor, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
    }
    void redirect(int from, int to) { posix_spawn_file_actions_adddup2(&actions_, from, to); }
    void close(int descriptor) { posix_spawn_file_actions_addclose(&actions_, descriptor); }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

pid_t spawnTool(const Arguments& arguments, const FileActions& actions) {
    std::vector<char*> argv{const_cast<char*>(KVFFMPEG_TOOL)};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // In a job in the background, for example, these may be ignored.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGPIPE, SIGALRM}) sigaddset(&signals, signal);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, KVFFMPEG_TOOL, actions.get(), &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) throw std::runtime_error("cannot run " KVFFMPEG_TOOL);
    return pid;
}

std::string readText(const std::string& path) {
    const std::vector<std::uint8_t> bytes = readFile(path);
    return std::string(bytes.begin(), bytes.end());
}

int openFifo(const std::string& path) {
    if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("cannot make " + path);
    return open(path.c_str(), O_RDWR);
}

}  // namespace

ToolProcess::ToolProcess(const Arguments& arguments, const std::vector<std::pair<int, int>>& redirections,
                         const std::vector<int>& closed) {
    FileActions actions;
    actions.write(STDOUT_FILENO, folder_.file("out"));
    actions.write(STDERR_FILENO, folder_.file("err"));
    for (const auto& [from, to] : redirections) actions.redirect(from, to);
    for (const int descriptor : closed) actions.close(descriptor);
    pid_ = spawnTool(arguments, actions);
}

ToolProcess::~ToolProcess() {
    if (pid_ == 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void ToolProcess::send(int signal) const {
    kill(pid_, signal);
}

Result ToolProcess::wait() {
    int status = 0;
    if (!waitUntil([&] { return waitpid(pid_, &status, WNOHANG) != 0; })) {
        throw std::runtime_error("the tool hangs");
    }
    pid_ = 0;
    const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return {exitCode, readText(folder_.file("out")), readText(folder_.file("err"))};
}

Result run(const Arguments& arguments) {
    return ToolProcess(arguments).wait();
}

Descriptor::Descriptor(int value) : value_(value) {
    if (value < 0) throw std::runtime_error("cannot open a file descriptor");
}

Descriptor::~Descriptor() {
    close(value_);
}

Fifo::Fifo(const std::string& path) : path_(path), end_(openFifo(path)) {}

void Fifo::write(const std::vector<std::uint8_t>& bytes) const {
    if (::write(end_.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("cannot write to " + path_);
    }
}

bool Fifo::isDrained() const {
    int unread = 0;
    return ioctl(end_.get(), FIONREAD, &unread) == 0 && unread == 0;
}

}  // namespace kvffmpeg::test
