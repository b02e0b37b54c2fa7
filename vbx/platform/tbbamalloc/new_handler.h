// The new mode and the new handler.
#pragma once

#include <cstddef>

// For an allocation of `size` bytes that failed, called outside any TBBK_ENTRY since a handler may leave
// through exit(). Gives true when the allocation is worth another try; else errno is ENOMEM.
bool tbbk_should_retry(std::size_t size) noexcept;
