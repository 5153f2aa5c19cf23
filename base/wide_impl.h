// The shape of a wide (_w) entry point that forwards to its narrow form: a _w
// function converts its wide arguments with qel_str_unicode_to_utf8, calls the
// narrow form with the copies and frees them with qel_str_free. Every such _w
// function in the library goes through this header.
//
//   int qel_<family>_<operation>_w(const wchar_t *path)
//   {
//       return qel::detail::call_narrow(0, qel_<family>_<operation>, path);
//   }
//   char *..._w(...) { return call_narrow<char *>(nullptr, narrow, a, b); }
//
// call_narrow treats a null argument as a failed conversion (the usual rule:
// "a failed conversion gives the function's failure value");
// call_narrow_nullable passes a null argument on as null and fails only when
// a non-null argument does not convert. A _w function with its own steps
// around the call holds its copies in Utf8Copy.
//
// Freeing a copy never changes errno, so the reason that the narrow form left
// there reaches the caller.
#ifndef QEL_BASE_WIDE_IMPL_H
#define QEL_BASE_WIDE_IMPL_H

#include <errno.h>
#include <stddef.h>

#include <type_traits>
#include <utility>

#include "qel_conv.h"

namespace qel::detail {

// The UTF-8 copy of a wide string, owned for the holder's lifetime.
class Utf8Copy {
public:
    explicit Utf8Copy(const wchar_t *wide) noexcept
        : wide_(wide), utf8_(wide != nullptr ? qel_str_unicode_to_utf8(wide) : nullptr)
    {
    }
    ~Utf8Copy()
    {
        int saved = errno;
        qel_str_free(utf8_);
        errno = saved;
    }
    Utf8Copy(const Utf8Copy &) = delete;
    Utf8Copy &operator=(const Utf8Copy &) = delete;

    // The copy; null if the argument was null or did not convert.
    char *get() const noexcept { return utf8_; }
    // True if there is a copy.
    bool ok() const noexcept { return utf8_ != nullptr; }
    // True if a non-null argument did not convert.
    bool failed() const noexcept { return wide_ != nullptr && utf8_ == nullptr; }

private:
    const wchar_t *wide_;
    char *utf8_;
};

namespace wide_impl {

template <class R, class Narrow, class... W, size_t... I>
R call_with(Utf8Copy (&copies)[sizeof...(W)], Narrow &&narrow, std::index_sequence<I...>)
{
    return static_cast<R>(std::forward<Narrow>(narrow)(copies[I].get()...));
}

template <class... W>
constexpr bool all_wide = (std::is_convertible_v<W, const wchar_t *> && ...);

} // namespace wide_impl

// Converts every wide argument, calls narrow(copy...) and frees the copies.
// Returns: narrow's result; fail if any argument is null or does not convert
// (narrow is not called).
template <class R, class Narrow, class... W>
R call_narrow(R fail, Narrow &&narrow, W... wide)
{
    static_assert(sizeof...(W) > 0 && wide_impl::all_wide<W...>, "wide string arguments");
    Utf8Copy copies[sizeof...(W)] = {Utf8Copy(wide)...};
    for (const Utf8Copy &c : copies)
        if (!c.ok())
            return fail;
    return wide_impl::call_with<R, Narrow, W...>(copies, std::forward<Narrow>(narrow),
                                                 std::index_sequence_for<W...>{});
}

// As call_narrow, but a null argument reaches narrow as null.
// Returns: narrow's result; fail if a non-null argument does not convert.
template <class R, class Narrow, class... W>
R call_narrow_nullable(R fail, Narrow &&narrow, W... wide)
{
    static_assert(sizeof...(W) > 0 && wide_impl::all_wide<W...>, "wide string arguments");
    Utf8Copy copies[sizeof...(W)] = {Utf8Copy(wide)...};
    for (const Utf8Copy &c : copies)
        if (c.failed())
            return fail;
    return wide_impl::call_with<R, Narrow, W...>(copies, std::forward<Narrow>(narrow),
                                                 std::index_sequence_for<W...>{});
}

} // namespace qel::detail

#endif /* QEL_BASE_WIDE_IMPL_H */
