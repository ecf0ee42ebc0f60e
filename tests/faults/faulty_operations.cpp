// Operations that do wrong when something fails, one in each way: the driver must find every one.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "operation.h"
#include "support/media.h"

namespace kvffmpeg::faults {
namespace {

struct Faulty {
    std::string path;
    std::uint64_t result = 1;
    bool shortage = false;
};

/// Whether an allocation of the driver's own failed.
bool allocationFails() {
    void* volatile block = std::malloc(100);
    std::free(block);
    return block == nullptr;
}

template <typename Action>
Operation faulty(const std::string& name, unsigned promises, const std::string& path, Action action) {
    return operation(
        name, promises,
        [path] {
            auto state = std::make_unique<Faulty>();
            state->path = path;
            return state;
        },
        [action](Faulty& state) {
            if (allocationFails()) action(state);
        },
        [](const Faulty& state, Digest& digest) { digest.add(state.result); });
}

int newResult = 1;  // of the process

}  // namespace

std::vector<Operation> faultyOperations(const Places& places) {
    const std::string path = places.temporary + "/tone.wav";
    std::vector<Operation> all;
    all.push_back(faulty("crash", 0, path, [](Faulty&) { std::raise(SIGSEGV); }));
    all.push_back(faulty("abort", 0, path, [](Faulty&) { std::abort(); }));
    all.push_back(faulty("exit", 0, path, [](Faulty&) { _exit(0); }));
    all.push_back(faulty("hang", 0, path, [](Faulty&) {
        for (volatile int i = 0;; i = i + 1) {
        }
    }));
    all.push_back(faulty("leak", 0, path, [](Faulty&) {
        void* volatile lost = std::malloc(123);
        lost = nullptr;
        (void)lost;
        throw std::bad_alloc();
    }));
    all.push_back(faulty("descriptor", 0, path, [](Faulty& state) {
        (void)open(state.path.c_str(), O_RDONLY | O_CLOEXEC);
        throw std::runtime_error("left open");
    }));
    all.push_back(faulty("exception", 0, path, [](Faulty&) { throw std::logic_error("no such promise"); }));
    all.push_back(
        faulty("promise", onlyBadAlloc, path, [](Faulty&) { throw std::runtime_error("only bad_alloc"); }));
    all.push_back(faulty("swallowed", 0, path, [](Faulty& state) { state.result = 2; }));
    all.push_back(operation(
        "again", 0, [] { return std::make_unique<Faulty>(); },
        [](Faulty& state) {
            if (allocationFails()) {
                newResult = 2;
                throw std::bad_alloc();
            }
            state.result = static_cast<std::uint64_t>(newResult);
        },
        [](const Faulty& state, Digest& digest) { digest.add(state.result); }));
    all.push_back(operation(
        "file", reportsAllErrors,
        [path] {
            auto state = std::make_unique<Faulty>();
            state->path = path;
            return state;
        },
        [](Faulty& state) {
            char byte = 0;
            const int descriptor = open(state.path.c_str(), O_RDONLY | O_CLOEXEC);
            if (descriptor < 0) throw std::runtime_error("cannot open");
            state.result = static_cast<std::uint64_t>(read(descriptor, &byte, 1) + 1);
            close(descriptor);
        },
        [](const Faulty& state, Digest& digest) { digest.add(state.result); }));
    return all;
}

}  // namespace kvffmpeg::faults
