#pragma once

#include <cstddef>

namespace kvffmpeg::test {

/// At which end of a block the page lies that kills whoever touches it.
enum class GuardedEnd {
    front,  ///< The block begins 16 bytes behind the page, as large blocks of the heap begin in theirs.
    back,   ///< The block, which is 16-aligned, ends at the page, or fewer than 16 bytes before it.
};

/// A block of memory beside a page that must not be touched, filled with `fill`. @throws std::bad_alloc.
void* allocateGuarded(std::size_t size, GuardedEnd end, unsigned char fill);
/// Frees what `allocateGuarded` gave. @returns false for any other pointer, which stays as it is.
bool freeGuarded(void* block) noexcept;
/// Whether `allocateGuarded` gave this block and it is not freed.
bool isGuarded(const void* block) noexcept;

}  // namespace kvffmpeg::test
