// A view into the library's own memory: an allocation that it makes can be refused, and what it frees is
// searched for secrets. Not under a sanitizer, which brings an allocator of its own.
#pragma once

#include <cstddef>

namespace library_memory {

/// The text that every secret of the entry point table holds.
inline constexpr char kSecret[] = "SECRET";

/// Counts anew, and refuses the nth allocation from now, the next one being 1, and as many in all; 0 refuses
/// none.
void watch(std::size_t nth = 0, std::size_t inAll = 1);

std::size_t allocations();

/// How many blocks held a secret when the library freed them.
std::size_t freedSecrets();

}  // namespace library_memory
