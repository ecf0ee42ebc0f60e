#include "support/guard_page.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <mutex>
#include <new>

namespace kvffmpeg::test {
namespace {

struct Mapping {
    void* start;
    std::size_t size;
};

struct Mappings {
    std::mutex mutex;
    std::map<const void*, Mapping> ofBlock;
};

/// Never destroyed: blocks may be freed by destructors of static objects.
Mappings& mappings() {
    static auto* const all = new Mappings;
    return *all;
}

}  // namespace

void* allocateGuarded(std::size_t size, GuardedEnd end, unsigned char fill) {
    constexpr std::size_t alignment = 16;
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t usable = (size + alignment + page - 1) / page * page;
    const Mapping mapping{mmap(nullptr, usable + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0),
                          usable + 2 * page};
    if (mapping.start == MAP_FAILED) throw std::bad_alloc();
    auto* first = static_cast<unsigned char*>(mapping.start) + page;
    try {
        if (mprotect(first, usable, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
        std::memset(first, fill, usable);
        unsigned char* block =
            end == GuardedEnd::front ? first + alignment : first + (usable - size) / alignment * alignment;
        Mappings& all = mappings();
        const std::lock_guard<std::mutex> lock(all.mutex);
        all.ofBlock.emplace(block, mapping);
        return block;
    } catch (...) {
        munmap(mapping.start, mapping.size);
        throw;
    }
}

bool freeGuarded(void* block) noexcept {
    Mappings& all = mappings();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.ofBlock.find(block);
    if (found == all.ofBlock.end()) return false;
    munmap(found->second.start, found->second.size);
    all.ofBlock.erase(found);
    return true;
}

bool isGuarded(const void* block) noexcept {
    Mappings& all = mappings();
    const std::lock_guard<std::mutex> lock(all.mutex);
    return all.ofBlock.count(block) != 0;
}

}  // namespace kvffmpeg::test
