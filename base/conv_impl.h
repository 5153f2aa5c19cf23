// Internals of the conversion module that the tests reach.
#ifndef QEL_BASE_CONV_IMPL_H
#define QEL_BASE_CONV_IMPL_H

#include <stdint.h>

namespace qel::detail {

// Number of per-thread converters open in the process right now.
long conv_kept_converters() noexcept;

// The character class of a byte: 0 never in text, 1 ASCII text, 2 ISO-8859
// text, 3 other extended characters.
uint8_t text_class(unsigned char byte) noexcept;

} // namespace qel::detail

#endif /* QEL_BASE_CONV_IMPL_H */
