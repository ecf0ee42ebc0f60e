#include "kvffmpeg/memory.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace kvffmpeg {
namespace {

/// Array new that refuses absurd sizes by itself: FFmpeg's negative error codes arrive here as huge sizes,
/// adding the padding to them must not wrap around, and sanitizers end the process on huge requests.
///
/// The padding becomes zero: some of FFmpeg's code computes the last pixel from it, which shall be the same
/// in every run.
unsigned char* allocate(std::size_t size, std::size_t padding) {
    if (size > static_cast<std::size_t>(PTRDIFF_MAX) - padding) throw std::bad_alloc();
    auto* const block = new unsigned char[size + padding];
    std::fill_n(block + size, padding, static_cast<unsigned char>(0));
    return block;
}

}  // namespace

MemBuffer::MemBuffer(std::size_t size, unsigned char* data) : data_(data) {
    if (data) {
        external_ = true;
    } else {
        resize(size);
    }
}

MemBuffer::~MemBuffer() {
    if (!external_) delete[] data_;
}

void MemBuffer::resize(std::size_t size) {
    if (size > size_) {
        unsigned char* grown = allocate(size, tailPadding);
        if (data_) {
            std::memmove(grown, data_, size_);
            delete[] data_;
        }
        data_ = grown;
    }
    size_ = size;
}

FixedBufferPool::FixedBufferPool(FixedBufferPool&& other) noexcept
    : blockSize_(other.blockSize_), free_(std::move(other.free_)), used_(std::move(other.used_)) {
    other.free_.clear();
    other.used_.clear();
}

FixedBufferPool::~FixedBufferPool() {
    for (unsigned char* block : free_) delete[] block;
}

void* FixedBufferPool::alloc() {
    if (free_.empty()) {
        // The node first: a block that was allocated must not be lost because there is none to keep it in.
        std::list<unsigned char*> node(1, nullptr);
        node.front() = allocate(blockSize_, 0);
        used_.splice(used_.begin(), node);
    } else {
        used_.splice(used_.begin(), free_, free_.begin());
    }
    return used_.front();
}

void FixedBufferPool::release(void* block) noexcept {
    const auto position = std::find(used_.begin(), used_.end(), block);
    if (position != used_.end()) free_.splice(free_.begin(), used_, position);
}

void FixedBufferPool::getStatus(std::size_t& total, std::size_t& used) const noexcept {
    used = used_.size() * blockSize_;
    total = (free_.size() + used_.size()) * blockSize_;
}

void* PoolAllocator::alloc(std::size_t size) {
    const std::lock_guard<std::mutex> lock(mutex_);
    // Everything that can throw comes before the block is taken: the entry is made, with room for it in the
    // table, and taken out again, which never fails, until its key is known.
    auto entry = sizes_.extract(sizes_.emplace(nullptr, size).first);
    const auto [pool, isNew] = pools_.try_emplace(size, size);
    try {
        entry.key() = pool->second.alloc();
    } catch (...) {
        if (isNew) pools_.erase(pool);
        throw;
    }
    return sizes_.insert(std::move(entry)).position->first;
}

void PoolAllocator::release(void* block) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = sizes_.find(block);
    if (entry == sizes_.end()) throw std::bad_alloc();
    const auto pool = pools_.find(entry->second);
    if (pool == pools_.end()) throw std::runtime_error("PoolAllocator corrupted");
    pool->second.release(block);
    sizes_.erase(entry);
}

void PoolAllocator::getStatus(std::size_t& total, std::size_t& used) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    total = 0;
    used = 0;
    for (const auto& [size, pool] : pools_) {
        std::size_t poolTotal = 0;
        std::size_t poolUsed = 0;
        pool.getStatus(poolTotal, poolUsed);
        total += poolTotal;
        used += poolUsed;
    }
}

}  // namespace kvffmpeg
