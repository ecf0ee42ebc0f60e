// A library to preload: it stands before the C library's allocation and file functions, counts their calls
// while the driver says that it is armed, and lets chosen ones fail. Operator new of libstdc++ calls malloc
// and is counted there. Live blocks are kept in a table of its own, so that the driver can tell what leaked.
//
// Nothing here allocates. What stdio does inside the C library cannot be seen from outside: fopen and fread
// have functions here for that reason.

#include "shim.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#define KVFFMPEG_INTERPOSED extern "C" __attribute__((visibility("default")))

extern "C" {
// The C library's own names for what is interposed: looking them up with dlsym would itself allocate.
void* __libc_malloc(std::size_t size) noexcept;
void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
void* __libc_realloc(void* block, std::size_t size) noexcept;
void* __libc_memalign(std::size_t alignment, std::size_t size) noexcept;
void __libc_free(void* block) noexcept;
}

namespace kvffmpeg::faults {
namespace {

Shim shim;

class SpinLock {
public:
    SpinLock() noexcept {
        while (taken.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~SpinLock() { taken.clear(std::memory_order_release); }
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;

private:
    static inline std::atomic_flag taken = ATOMIC_FLAG_INIT;
};

/// Live blocks by address: linear probing, without tombstones.
class LiveTable {
public:
    void insert(const LiveBlock& block) noexcept {
        if (count_ >= capacity / 2) {
            shim.overflowed = true;
            return;
        }
        std::size_t slot = slotOf(block.address);
        while (blocks_[slot].address) slot = (slot + 1) % capacity;
        blocks_[slot] = block;
        ++count_;
    }

    /// @returns what was there, if anything.
    LiveBlock remove(const void* address) noexcept {
        if (count_ == 0) return LiveBlock();
        std::size_t slot = slotOf(address);
        while (blocks_[slot].address != address) {
            if (!blocks_[slot].address) return LiveBlock();
            slot = (slot + 1) % capacity;
        }
        // What follows without a gap moves up where its probing would no longer find it.
        const LiveBlock removed = blocks_[slot];
        std::size_t gap = slot;
        for (std::size_t next = (gap + 1) % capacity; blocks_[next].address; next = (next + 1) % capacity) {
            const std::size_t home = slotOf(blocks_[next].address);
            const bool reachable = gap < next ? home > gap && home <= next : home > gap || home <= next;
            if (reachable) continue;
            blocks_[gap] = blocks_[next];
            gap = next;
        }
        blocks_[gap] = LiveBlock();
        --count_;
        return removed;
    }

    std::size_t copy(LiveBlock* to, std::size_t most) const noexcept {
        std::size_t copied = 0;
        for (std::size_t slot = 0; copied < std::min(most, count_) && slot < capacity; ++slot) {
            if (blocks_[slot].address) to[copied++] = blocks_[slot];
        }
        return count_;
    }

    void clear() noexcept {
        if (count_ == 0) return;
        std::fill(blocks_.begin(), blocks_.end(), LiveBlock());
        count_ = 0;
    }

private:
    static constexpr std::size_t capacity = 1U << 14;  // few pages, as each fork pays for those it touches

    static std::size_t slotOf(const void* address) noexcept {
        const auto number = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(address));
        return static_cast<std::size_t>(number * 0x9E3779B97F4A7C15U >> 50);  // 14 bits
    }

    std::array<LiveBlock, capacity> blocks_;
    std::size_t count_ = 0;
};

LiveTable live;

// The static model, since the other one allocates on first use.
__attribute__((tls_model("initial-exec"))) thread_local bool tracing = false;

void trace(Backtrace& to) noexcept {
    if (tracing) return;
    tracing = true;
    const int savedError = errno;
    to.count = backtrace(to.frames.data(), static_cast<int>(to.frames.size()));
    errno = savedError;
    tracing = false;
}

bool fires(std::uint64_t number) noexcept {
    const Fault& fault = shim.fault;
    if (number != fault.index && !(fault.onwards && number > fault.index)) return false;
    if (shim.fired.fetch_add(1) == 0) trace(shim.firedAt);
    return true;
}

// ---- Memory ----

struct Attempt {
    std::uint64_t ordinal = 0;  ///< 0: nobody wants to know.
    bool fails = false;
};

Attempt beginAllocation() noexcept {
    Attempt attempt;
    if (tracing) return attempt;
    if (shim.armed.load(std::memory_order_relaxed)) {
        attempt.ordinal = shim.allocations.fetch_add(1) + 1;
        attempt.fails = shim.fault.effect == Effect::noMemory && fires(attempt.ordinal);
        if (attempt.fails) errno = ENOMEM;
    } else if (shim.tracking.load(std::memory_order_relaxed)) {
        attempt.ordinal = unarmedOrdinal | (shim.unarmedAllocations.fetch_add(1) + 1);
    }
    return attempt;
}

void* endAllocation(const Attempt& attempt, void* block, std::size_t size) noexcept {
    if (attempt.ordinal != 0 && block) {
        if (attempt.ordinal == shim.tracedOrdinal) trace(shim.tracedAt);
        const SpinLock lock;
        live.insert({block, size, attempt.ordinal});
    }
    return block;
}

LiveBlock forget(const void* block) noexcept {
    const SpinLock lock;
    return live.remove(block);
}

void* allocateAligned(std::size_t alignment, std::size_t size) noexcept {
    const Attempt attempt = beginAllocation();
    return attempt.fails ? nullptr : endAllocation(attempt, __libc_memalign(alignment, size), size);
}

// ---- Files ----

constexpr std::size_t mostDescriptors = 1024;
std::array<std::atomic<bool>, mostDescriptors> watchedDescriptors{};

constexpr std::size_t mostFolders = 8;
std::array<const char*, mostFolders> folders{};

/// The function that is next in the order of libraries.
template <typename Function>
Function following(Function& kept, const char* name) noexcept {
    if (!kept) kept = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
    return kept;
}

bool isWatched(int descriptor) noexcept {
    return descriptor >= 0 && static_cast<std::size_t>(descriptor) < mostDescriptors &&
           watchedDescriptors[static_cast<std::size_t>(descriptor)].load(std::memory_order_relaxed);
}

bool isWatched(const char* path) noexcept {
    return path && std::any_of(folders.begin(), folders.end(), [path](const char* folder) {
               return folder && std::strncmp(path, folder, std::strlen(folder)) == 0;
           });
}

int watch(int descriptor, bool watched) noexcept {
    if (descriptor >= 0 && static_cast<std::size_t>(descriptor) < mostDescriptors) {
        watchedDescriptors[static_cast<std::size_t>(descriptor)] = watched;
    }
    return descriptor;
}

/// What shall happen to a call on a watched file. Sets errno for an error.
Effect beginFileCall(FileCall kind) noexcept {
    if (!shim.armed.load(std::memory_order_relaxed)) return Effect::none;
    const std::uint64_t number = shim.fileCalls.fetch_add(1) + 1;
    if (number <= mostFileCalls) shim.fileCallKinds[number - 1] = kind;
    const Effect effect = shim.fault.effect;
    if (effect == Effect::shortened && kind != FileCall::read && kind != FileCall::write) return Effect::none;
    if ((effect != Effect::error && effect != Effect::shortened) || !fires(number)) return Effect::none;
    if (effect == Effect::error) errno = shim.fault.error;
    return effect;
}

std::size_t shortened(Effect effect, std::size_t count) noexcept {
    return effect == Effect::shortened ? std::max<std::size_t>(count / 2, std::min<std::size_t>(count, 1))
                                       : count;
}

bool takesMode(int flags) noexcept {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

template <typename Open>
int openFile(const char* path, Open open) noexcept {
    if (!isWatched(path)) return watch(open(), false);
    if (beginFileCall(FileCall::open) == Effect::error) return -1;
    return watch(open(), true);
}

template <typename Function>
auto transfer(FileCall kind, int descriptor, std::size_t count, Function function) noexcept
    -> decltype(function(count)) {
    if (!isWatched(descriptor)) return function(count);
    const Effect effect = beginFileCall(kind);
    if (effect == Effect::error) return -1;
    return function(shortened(effect, count));
}

template <typename Function>
auto seekFile(int descriptor, Function function) noexcept -> decltype(function()) {
    if (isWatched(descriptor) && beginFileCall(FileCall::seek) == Effect::error) return -1;
    return function();
}

template <typename Function>
void* mapFile(int descriptor, Function function) noexcept {
    if (isWatched(descriptor) && beginFileCall(FileCall::map) == Effect::error) return MAP_FAILED;
    return function();
}

template <typename Function>
std::FILE* openStream(const char* path, Function function) noexcept {
    if (!isWatched(path)) return function();
    if (beginFileCall(FileCall::open) == Effect::error) return nullptr;
    std::FILE* stream = function();
    if (stream) watch(fileno(stream), true);
    return stream;
}

// ---- For the driver ----

void watchFolder(const char* path) noexcept {
    for (const char*& folder : folders) {
        if (!folder) {
            folder = path;
            return;
        }
    }
}

void reset() noexcept {
    {
        const SpinLock lock;
        live.clear();
    }
    shim.allocations = 0;
    shim.unarmedAllocations = 0;
    shim.fileCalls = 0;
    shim.fired = 0;
    shim.firedAt = Backtrace();
    shim.tracedAt = Backtrace();
    shim.overflowed = false;
}

std::size_t liveBlocks(LiveBlock* blocks, std::size_t most) noexcept {
    const SpinLock lock;
    return live.copy(blocks, most);
}

}  // namespace
}  // namespace kvffmpeg::faults

using namespace kvffmpeg::faults;

KVFFMPEG_INTERPOSED Shim* kvffmpeg_fault_shim() {
    shim.watchFolder = watchFolder;
    shim.reset = reset;
    shim.liveBlocks = liveBlocks;
    return &shim;
}

KVFFMPEG_INTERPOSED void* malloc(std::size_t size) noexcept {
    const Attempt attempt = beginAllocation();
    return attempt.fails ? nullptr : endAllocation(attempt, __libc_malloc(size), size);
}

KVFFMPEG_INTERPOSED void* calloc(std::size_t count, std::size_t size) noexcept {
    const Attempt attempt = beginAllocation();
    return attempt.fails ? nullptr : endAllocation(attempt, __libc_calloc(count, size), count * size);
}

KVFFMPEG_INTERPOSED void* realloc(void* block, std::size_t size) noexcept {
    const Attempt attempt = beginAllocation();
    if (attempt.fails) return nullptr;
    // Removed before and put back after, as another thread may be given the old address meanwhile.
    const LiveBlock known = block ? forget(block) : LiveBlock();
    void* moved = __libc_realloc(block, size);
    // Whoever made a block before the tracking began may keep it.
    if (block && !known.address) return moved;
    if (attempt.ordinal != 0) return endAllocation(attempt, moved, size);
    if (moved) {
        const SpinLock lock;
        live.insert({moved, size, known.ordinal});
    }
    return moved;
}

KVFFMPEG_INTERPOSED void* reallocarray(void* block, std::size_t count, std::size_t size) noexcept {
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return realloc(block, bytes);
}

KVFFMPEG_INTERPOSED int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0 || alignment == 0) return EINVAL;
    const int savedError = errno;  // which this function does not set
    void* allocated = allocateAligned(alignment, size);
    errno = savedError;
    if (!allocated) return ENOMEM;
    *block = allocated;
    return 0;
}

KVFFMPEG_INTERPOSED void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return allocateAligned(alignment, size);
}

KVFFMPEG_INTERPOSED void* memalign(std::size_t alignment, std::size_t size) noexcept {
    return allocateAligned(alignment, size);
}

KVFFMPEG_INTERPOSED void free(void* block) noexcept {
    if (block) forget(block);
    __libc_free(block);
}

/// The C library's own function of this name, as `next`.
#define KVFFMPEG_NEXT(name)                        \
    static decltype(&::name) kept##name = nullptr; \
    const auto next = following(kept##name, #name)

#define KVFFMPEG_INTERPOSE_OPEN(name)                                   \
    KVFFMPEG_INTERPOSED int name(const char* path, int flags, ...) {    \
        KVFFMPEG_NEXT(name);                                            \
        mode_t mode = 0;                                                \
        if (takesMode(flags)) {                                         \
            va_list arguments;                                          \
            va_start(arguments, flags);                                 \
            mode = va_arg(arguments, mode_t);                           \
            va_end(arguments);                                          \
        }                                                               \
        return openFile(path, [&] { return next(path, flags, mode); }); \
    }

#define KVFFMPEG_INTERPOSE_OPENAT(name)                                          \
    KVFFMPEG_INTERPOSED int name(int folder, const char* path, int flags, ...) { \
        KVFFMPEG_NEXT(name);                                                     \
        mode_t mode = 0;                                                         \
        if (takesMode(flags)) {                                                  \
            va_list arguments;                                                   \
            va_start(arguments, flags);                                          \
            mode = va_arg(arguments, mode_t);                                    \
            va_end(arguments);                                                   \
        }                                                                        \
        return openFile(path, [&] { return next(folder, path, flags, mode); });  \
    }

KVFFMPEG_INTERPOSE_OPEN(open)
KVFFMPEG_INTERPOSE_OPEN(open64)
KVFFMPEG_INTERPOSE_OPENAT(openat)
KVFFMPEG_INTERPOSE_OPENAT(openat64)

KVFFMPEG_INTERPOSED int close(int descriptor) {
    KVFFMPEG_NEXT(close);
    const bool fails = isWatched(descriptor) && beginFileCall(FileCall::close) == Effect::error;
    watch(descriptor, false);
    const int result = next(descriptor);
    if (!fails) return result;
    errno = shim.fault.error;
    return -1;
}

KVFFMPEG_INTERPOSED ssize_t read(int descriptor, void* bytes, std::size_t count) {
    KVFFMPEG_NEXT(read);
    return transfer(FileCall::read, descriptor, count,
                    [&](std::size_t part) { return next(descriptor, bytes, part); });
}

KVFFMPEG_INTERPOSED ssize_t pread(int descriptor, void* bytes, std::size_t count, off_t offset) {
    KVFFMPEG_NEXT(pread);
    return transfer(FileCall::read, descriptor, count,
                    [&](std::size_t part) { return next(descriptor, bytes, part, offset); });
}

KVFFMPEG_INTERPOSED ssize_t pread64(int descriptor, void* bytes, std::size_t count, off64_t offset) {
    KVFFMPEG_NEXT(pread64);
    return transfer(FileCall::read, descriptor, count,
                    [&](std::size_t part) { return next(descriptor, bytes, part, offset); });
}

KVFFMPEG_INTERPOSED ssize_t write(int descriptor, const void* bytes, std::size_t count) {
    KVFFMPEG_NEXT(write);
    return transfer(FileCall::write, descriptor, count,
                    [&](std::size_t part) { return next(descriptor, bytes, part); });
}

KVFFMPEG_INTERPOSED off_t lseek(int descriptor, off_t offset, int from) noexcept {
    KVFFMPEG_NEXT(lseek);
    return seekFile(descriptor, [&] { return next(descriptor, offset, from); });
}

KVFFMPEG_INTERPOSED off64_t lseek64(int descriptor, off64_t offset, int from) noexcept {
    KVFFMPEG_NEXT(lseek64);
    return seekFile(descriptor, [&] { return next(descriptor, offset, from); });
}

KVFFMPEG_INTERPOSED void* mmap(void* address, std::size_t size, int protection, int flags, int descriptor,
                               off_t offset) noexcept {
    KVFFMPEG_NEXT(mmap);
    return mapFile(descriptor, [&] { return next(address, size, protection, flags, descriptor, offset); });
}

KVFFMPEG_INTERPOSED void* mmap64(void* address, std::size_t size, int protection, int flags, int descriptor,
                                 off64_t offset) noexcept {
    KVFFMPEG_NEXT(mmap64);
    return mapFile(descriptor, [&] { return next(address, size, protection, flags, descriptor, offset); });
}

KVFFMPEG_INTERPOSED std::FILE* fopen(const char* path, const char* mode) {
    KVFFMPEG_NEXT(fopen);
    return openStream(path, [&] { return next(path, mode); });
}

KVFFMPEG_INTERPOSED std::FILE* fopen64(const char* path, const char* mode) {
    KVFFMPEG_NEXT(fopen64);
    return openStream(path, [&] { return next(path, mode); });
}

KVFFMPEG_INTERPOSED std::size_t fread(void* bytes, std::size_t size, std::size_t count, std::FILE* stream) {
    KVFFMPEG_NEXT(fread);
    if (!isWatched(fileno(stream))) return next(bytes, size, count, stream);
    const Effect effect = beginFileCall(FileCall::read);
    return effect == Effect::error ? 0 : next(bytes, size, shortened(effect, count), stream);
}
