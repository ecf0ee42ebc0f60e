#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kvffmpeg/kvffmpeg.h"

namespace kvffmpeg::faults {

/// One use of the library, made ready but not begun.
class Instance {
public:
    Instance() = default;
    virtual ~Instance() = default;
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    virtual void run() = 0;                    ///< What is made to fail, as is the destruction after it.
    virtual std::uint64_t result() const = 0;  ///< Of `run`: equal for equal results.
};

/// What an operation promises beyond the rules that hold for all of them.
enum Promise : unsigned {
    onlyBadAlloc = 1,      ///< No other exception leaves it.
    answersShortage = 2,   ///< Where the library's own memory runs out the result may differ, without an
                           ///< exception: a packet that does not decode, a blank copy.
    reportsAllErrors = 4,  ///< A fault of a file gives an exception or makes no difference.
};

struct Operation {
    std::string name;
    unsigned promises = 0;
    std::function<std::unique_ptr<Instance>()> make;
};

/// An FNV-1a hash of whatever a result is made of.
class Digest {
public:
    Digest& add(const void* bytes, std::size_t count) noexcept {
        const auto* data = static_cast<const unsigned char*>(bytes);
        for (std::size_t i = 0; i < count; ++i) value_ = (value_ ^ data[i]) * 0x100000001b3U;
        return *this;
    }
    Digest& add(const std::string& text) noexcept { return add(text.size()).add(text.data(), text.size()); }
    Digest& add(std::uint64_t number) noexcept { return add(&number, sizeof number); }
    Digest& add(Timestamp time) noexcept;
    Digest& add(const Picture& picture);
    Digest& add(const AudioBuffer& audio);
    Digest& add(const Frame& frame);
    Digest& add(const Packet& packet) noexcept;

    std::uint64_t value() const noexcept { return value_; }

private:
    std::uint64_t value_ = 0xcbf29ce484222325U;
};

template <typename State, typename Run, typename Result>
class InstanceOf : public Instance {
public:
    InstanceOf(std::unique_ptr<State> state, Run runOf, Result resultOf)
        : state_(std::move(state)), run_(std::move(runOf)), result_(std::move(resultOf)) {}
    void run() override { run_(*state_); }
    std::uint64_t result() const override {
        Digest digest;
        result_(*state_, digest);
        return digest.value();
    }

private:
    std::unique_ptr<State> state_;
    Run run_;
    Result result_;
};

/// An operation from functions: `prepare()` gives a unique_ptr to a state, `run(state)` is what is made to
/// fail, and `result(state, digest)` adds up what came of it.
template <typename Prepare, typename Run, typename Result>
Operation operation(std::string name, unsigned promises, Prepare prepare, Run run, Result result) {
    using State = typename decltype(prepare())::element_type;
    return {std::move(name), promises, [prepare, run, result]() -> std::unique_ptr<Instance> {
                return std::make_unique<InstanceOf<State, Run, Result>>(prepare(), run, result);
            }};
}

/// Where the operations find their files. Both folders are watched by the shim.
struct Places {
    std::string examples;   ///< clip.mp4 and raster_font.png.
    std::string temporary;  ///< To be written to.
    std::string font;       ///< A font for FreeType, or empty.
    std::string media;      ///< A folder of real media files, or empty.
};

/// Whether `action` returns, tried in a process of its own: this one is not to use the library before the
/// first fault.
bool goesThrough(const std::function<void()>& action);

/// Over the public interface, what needs a file, encoder or filter that is missing left out.
std::vector<Operation> allOperations(const Places& places);
/// Operations with a fault of their own of each kind that is looked for.
std::vector<Operation> faultyOperations(const Places& places);

}  // namespace kvffmpeg::faults
