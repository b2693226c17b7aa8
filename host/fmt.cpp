// The text formatter, compiled here once for all files: every file that takes it as headers alone
// compiles it again, and as a shared object it would be loaded at each start.

#include <fmt/format-inl.h>

FMT_BEGIN_NAMESPACE
namespace detail {

// What its headers declare as made elsewhere.
template thousands_sep_result<char> thousands_sep_impl<char>(locale_ref);
template char decimal_point_impl<char>(locale_ref);
template void buffer<char>::append<char>(const char *, const char *);
template void vformat_to<char>(buffer<char> &, string_view, format_args, locale_ref);
template dragonbox::decimal_fp<float> dragonbox::to_decimal<float>(float) noexcept;
template dragonbox::decimal_fp<double> dragonbox::to_decimal<double>(double) noexcept;

}  // namespace detail
FMT_END_NAMESPACE
