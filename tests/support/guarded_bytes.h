#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <new>

namespace kvffmpeg::test {

/// Memory between two pages that must not be touched. Unlike the blocks of guard_page.h it is given out to
/// the byte, with any alignment.
class GuardedBytes {
public:
    explicit GuardedBytes(std::size_t capacity) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        usable_ = (capacity + page - 1) / page * page;
        size_ = usable_ + 2 * page;
        mapping_ = mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapping_ == MAP_FAILED) throw std::bad_alloc();
        first_ = static_cast<std::uint8_t*>(mapping_) + page;
        if (mprotect(first_, usable_, PROT_READ | PROT_WRITE) != 0) {
            munmap(mapping_, size_);
            throw std::bad_alloc();
        }
    }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;
    ~GuardedBytes() { munmap(mapping_, size_); }

    std::uint8_t* front() const { return first_; }  ///< Right behind the page before.
    /// `count` bytes that end right before the page behind; at most the capacity.
    std::uint8_t* back(std::size_t count) const { return first_ + (usable_ - count); }

private:
    void* mapping_ = nullptr;
    std::uint8_t* first_ = nullptr;
    std::size_t usable_ = 0;
    std::size_t size_ = 0;
};

}  // namespace kvffmpeg::test
