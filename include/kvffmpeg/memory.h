#pragma once

#include <cstddef>
#include <list>
#include <mutex>
#include <unordered_map>

#include "kvffmpeg/export.h"

/// \file
/// The block behind pictures and samples, and pools of blocks.

namespace kvffmpeg {

/// A block of bytes with 32 spare bytes behind it, which vectorised FFmpeg code may touch. Pictures share one
/// through a `std::shared_ptr<MemBuffer>`; neither copied nor moved. Not locked.
class KVFFMPEG_EXPORT MemBuffer {
public:
    /// Bytes that every owned block has beyond `size()`. Zero in a new block.
    static constexpr std::size_t tailPadding = 32;

    MemBuffer() noexcept = default;  ///< Size 0, no block.
    /// With `data` null: owns a new block of `size` bytes, not initialised.
    /// Otherwise: borrows `data`, reports *size 0*, and never frees it, except that `resize` to more than 0
    /// bytes replaces and frees it: outside memory that is to grow must come from array `new`.
    /// @throws std::bad_alloc when the block cannot be allocated.
    MemBuffer(std::size_t size, unsigned char* data);
    ~MemBuffer();  ///< Frees the block if it is owned.
    MemBuffer(const MemBuffer&) = delete;
    MemBuffer& operator=(const MemBuffer&) = delete;

    std::size_t size() const noexcept { return size_; }  ///< Usable bytes.
    unsigned char* data() noexcept { return data_; }     ///< The first byte, or null.

    /// Makes `size()` equal to `size`. Shrinking keeps the block and forgets its capacity; growing moves the
    /// content to a new block (new bytes are not initialised) and frees the old one with array `delete`,
    /// *even if it was borrowed*; a buffer that borrowed goes on not freeing, so whoever grows it frees
    /// `data()`.
    /// @throws std::bad_alloc with nothing changed, also when `size` + 32 does not fit a `ptrdiff_t`.
    void resize(std::size_t size);

private:
    std::size_t size_ = 0;
    unsigned char* data_ = nullptr;
    bool external_ = false;
};

/// Recycles blocks of one size: the block released last is handed out next. Not locked.
///
/// Blocks that are still out when the pool is destroyed stay valid and are leaked on purpose, never freed
/// under their user.
class KVFFMPEG_EXPORT FixedBufferPool {
public:
    /// A pool of blocks of `blockSize` bytes, without any yet.
    explicit FixedBufferPool(std::size_t blockSize) noexcept : blockSize_(blockSize) {}
    /// Takes over all blocks; `other` is left without any and keeps its block size.
    FixedBufferPool(FixedBufferPool&& other) noexcept;
    FixedBufferPool(const FixedBufferPool&) = delete;
    FixedBufferPool& operator=(const FixedBufferPool&) = delete;
    FixedBufferPool& operator=(FixedBufferPool&&) = delete;
    ~FixedBufferPool();  ///< Frees the blocks that were given back.

    /// A block of the pool's size, aligned for any object of default alignment, not initialised.
    /// @throws std::bad_alloc with nothing changed.
    void* alloc();
    /// Gives a block back. Linear in the number of blocks that are out. A pointer that this pool has not
    /// handed out is ignored.
    void release(void* block) noexcept;
    /// Bytes of all blocks, and of those that are out.
    void getStatus(std::size_t& total, std::size_t& used) const noexcept;

private:
    std::size_t blockSize_;
    std::list<unsigned char*> free_;
    std::list<unsigned char*> used_;
};

/// One `FixedBufferPool` for every size that was ever asked for. Any number of threads may use it at once.
/// Memory is returned to the heap only when the allocator is destroyed; there are no size classes.
class KVFFMPEG_EXPORT PoolAllocator {
public:
    /// A block of exactly `size` bytes, not initialised.
    /// @throws std::bad_alloc with nothing changed.
    void* alloc(std::size_t size);
    /// Gives a block back. Linear in the number of blocks of that size that are out.
    /// @throws std::bad_alloc for a pointer that is not out (never was, or no more); nothing changes.
    /// @throws std::runtime_error "PoolAllocator corrupted" when the block's pool is gone.
    void release(void* block);
    /// Bytes of all blocks of all sizes, and of those that are out; one consistent snapshot.
    void getStatus(std::size_t& total, std::size_t& used) const;

private:
    mutable std::mutex mutex_;
    std::unordered_map<std::size_t, FixedBufferPool> pools_;
    std::unordered_map<void*, std::size_t> sizes_;
};

}  // namespace kvffmpeg
